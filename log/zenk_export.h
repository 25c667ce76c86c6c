#pragma once

/// Marks what the shared library shows to a host; everything else stays hidden.
#define ZENK_API __attribute__((visibility("default")))
