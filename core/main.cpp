// The collector daemon: its life is told in core/lifecycle.cpp.
#include <clocale>

#include "core/lifecycle.h"

int main(int argc, char **argv) {
    occupy_standard_streams();
    setlocale(LC_CTYPE, "");
    install_signal_handlers();
    if (start_collector(argc, argv) != 0) return 1;
    wait_for_stop();
    return shut_down_collector();
}
