#pragma once

/// The page of the reference host, examples/page/index.html, which the build makes a part of the program.
extern const char* const kPage;
