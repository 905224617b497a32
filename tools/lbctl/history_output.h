// A history as text, document and picture.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "lbctl/history_summary.h"
#include "lbctl/print.h"

namespace lbctl {

std::string history_text(const History& history, bool with_colour);
Json history_document(const History& history);
std::string history_picture(const History& history);

}  // namespace lbctl
