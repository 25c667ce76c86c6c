#pragma once

/// The files of examples/ that the host serves or reads, which the build makes a part of the program. What stands in
/// braces in those of discovery is to be filled in.
extern const char* const kPage;
extern const char* const kServices;         ///< what the television has built in
extern const char* const kDiscoveryAnswer;  ///< with plain newlines
extern const char* const kDeviceDescription;
extern const char* const kApplication;
