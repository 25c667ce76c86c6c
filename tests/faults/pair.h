#pragma once

#include "tests/support/pair.h"
