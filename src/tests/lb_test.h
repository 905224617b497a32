// placeholder until the framework is complete
#pragma once
#include "tests/health_test.h"
class LBTest : public HealthTest {};
class LBTest6 : public HealthTest {};
