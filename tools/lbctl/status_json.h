// The document of `lbctl status --json`: docs/schema/status-1.json.
#pragma once

#include "lbctl/print.h"
#include "lbctl/status_model.h"

namespace lbctl {

Json status_document(const Status& status);

}  // namespace lbctl
