// Moved to tests/support; kept for the end-to-end suite until it names the new place.
#pragma once
#include "tests/support/XvfbServer.h"
