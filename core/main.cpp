// The collector daemon: its life is told in core/lifecycle.cpp.
#include <clocale>

#include "core/lifecycle.h"

// Before the constructors of the libraries: the event library's opens files that stay open, and
// they would take the place of a standard stream that is closed.
[[gnu::constructor(101)]] static void before_the_libraries() {
    occupy_standard_streams();
}

int main(int argc, char **argv) {
    setlocale(LC_CTYPE, "");
    install_signal_handlers();
    if (start_collector(argc, argv) != 0) return 1;
    wait_for_stop();
    return shut_down_collector();
}
