// The whole public API of imagery, host layer included.
#pragma once

#include "imagery_host/error.h"
#include "imagery_host/resources.h"
#include "imagery_host/stream.h"
#include "imagery_host/zel_string.h"
