#pragma once

#include <string>

#include "log/zenk_export.h"

/// @file
/// What the library asks of the receiver's configuration.

/// Reads one whole number from the receiver's configuration. A receiver brings a library of its own with this call;
/// the one built here stands in for it, so that the servers run on any Linux machine. It reads an INI file:
///
///     [HbbTV]
///     MSMaxClientNum=10
///
/// The file is the one that the environment variable VEL_CONFIG_FILE names, else /etc/vel_config.ini. It is read anew
/// by each call. Names are compared letter by letter; an indented line continues the one before it; a line that is no
/// INI line is passed over.
///
/// @param section  name of the section, without brackets
/// @param key      name of the key in it
/// @param value    takes the number; may be null, which counts as a failure
/// @return 0 when `*value` holds the configured number. Any other result is a failure and leaves `*value` alone: no
/// such
///         file (only regular files are read), section or key; a key that is given twice or continued;
///         a value that is not wholly a decimal int
/// @thread any; reads a file, so it may wait for the disk. Nobody may change the environment meanwhile.
ZENK_API int zenk_vel_config_get_int(std::string const& section, std::string const& key, int* value);
