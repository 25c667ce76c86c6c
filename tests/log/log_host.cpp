#include <cstdio>

#include "log/zenk_log.h"

// Serves the log control channel until its standard input ends.
int main() {
    zenk_log_initialize(1);
    while (std::getchar() != EOF) {
    }
    return 0;
}
