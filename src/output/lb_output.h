// The status report and the binary dumps that the daemon leaves for people and programs.
#pragma once

#include "config/lb_config.h"
#include "config/worker_context.h"
