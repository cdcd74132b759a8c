// ruv_receiver: a Receiver for demonstrations, tests and laboratories.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/common/options.h"
#include "tools/ruv_receiver/server.h"

namespace {

using namespace receiver;

int complain(const std::string &what) {
    fprintf(stderr, "ruv_receiver: %s: %s\n", what.c_str(), strerror(errno));
    return 1;
}

bool read_file(const std::string &path, std::string *content) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "re"), fclose);
    if (!file) return false;
    char chunk[65536];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, file.get())) > 0;)
        content->append(chunk, got);
    return ferror(file.get()) == 0;
}

/** Every connection needs a descriptor; take as many as the system allows. */
void raise_descriptor_limit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

/** Decodes a stream that --save has kept. */
int replay(const settings &chosen, const catalogue &custom, event_log &log) {
    std::string stream;
    if (!read_file(chosen.read, &stream)) return complain("cannot read " + chosen.read);
    auto bytes = reinterpret_cast<const uint8_t *>(stream.data());
    record_origin origin = {0, {}, {}, custom.fields.empty() ? nullptr : &custom};
    log.counts.bytes = stream.size();
    for (size_t at = 0; at < stream.size();) {
        unit u = next_unit(bytes + at, stream.size() - at);
        if (u.kind == unit_kind::incomplete) u.size = stream.size() - at;
        if (u.kind == unit_kind::record) log.record(u, bytes + at, origin);
        if (u.kind == unit_kind::request) log.counts.requests++;
        if (u.kind == unit_kind::garbage || u.kind == unit_kind::incomplete)
            log.counts.garbage_bytes += u.size;
        at += u.size;
    }
    log.print_totals();
    return 0;
}

int serve(const settings &chosen, const catalogue &custom, event_log &log) {
    tls_server tls;
    if (chosen.tls != tls_mode::none) {
        std::string error;
        tls = tls_make_server(chosen, &error);
        if (!tls) {
            fprintf(stderr, "ruv_receiver: cannot set up TLS: %s\n", error.c_str());
            return 1;
        }
    }
    raise_descriptor_limit();
    server loop(chosen, custom, tls.get(), log);
    if (!loop.start()) return 1;
    if (chosen.print_port) {
        log.text() = std::to_string(loop.port()) + "\n";
        log.flush();
    } else {
        fprintf(stderr, "ruv_receiver: listening on %s port %u\n", chosen.listen.c_str(),
                loop.port());
    }
    loop.run();
    log.print_totals();
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    tools::open_standard_descriptors();
    settings chosen = read_command_line(argc, argv);
    catalogue custom;
    if (chosen.offers_catalogue) {
        std::string text;
        if (!read_file(chosen.catalogue, &text)) return complain("cannot read " + chosen.catalogue);
        custom = parse_catalogue(std::move(text));
    }
    event_log log(chosen);
    if (!chosen.save.empty() && !log.open_save(chosen.save))
        return complain("cannot write " + chosen.save);
    return chosen.read.empty() ? serve(chosen, custom, log) : replay(chosen, custom, log);
}
