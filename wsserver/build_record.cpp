// The build record: lines of text in the library file that tell which build it is, for whoever finds it on a receiver.
//
//     readelf -p .mmodule_version libzenk_hbbtv_wsserver.so
//
// The section has no flags, so it takes no memory at run time, and strip keeps it. "%progbits" and not "@progbits":
// "@" starts a comment in the assembler of 32-bit ARM.
#include "build_record.h"

asm(".pushsection .mmodule_version,\"\",%progbits\n"
    ".ascii \"LIBCODE:ZNKQ\\n\"\n"
    ".ascii \"MAJORID:" ZENK_BUILD_MAJOR
    "\\n\"\n"
    ".ascii \"MINORID:" ZENK_BUILD_MINOR
    "\\n\"\n"
    ".ascii \"BUILDNUM:" ZENK_BUILD_NUMBER
    "\\n\"\n"
    ".ascii \"$Change: " ZENK_BUILD_SOURCE_ID
    " $\\n\"\n"
    ".popsection\n");
