// The bundled Receiver's reading of a stream: cut into units, records described as JSON, requests
// answered. The first byte says how much of the input is the text of the custom-field file.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/ruv_receiver/decode.h"
#include "tools/ruv_receiver/frame.h"
#include "tools/ruv_receiver/responder.h"

namespace {

using receiver::unit_kind;

// One object on one line: quotes closed, braces in pairs, no raw control character.
void check_line(const std::string &line) {
    if (line.empty() || line.front() != '{' || line.back() != '\n') abort();
    int depth = 0;
    bool quoted = false;
    for (size_t i = 0; i + 1 < line.size(); ++i) {
        if (static_cast<unsigned char>(line[i]) < 32) abort();
        if (quoted && line[i] == '\\') {
            ++i;
        } else if (line[i] == '"') {
            quoted = !quoted;
        } else if (!quoted) {
            depth += (line[i] == '{') - (line[i] == '}');
            if (depth == 0 && i + 2 < line.size()) abort();
        }
    }
    if (quoted || depth != 0) abort();
}

void take_unit(const receiver::unit &u, const uint8_t *bytes, receiver::responder &answers,
               const receiver::catalogue &custom) {
    // A copy of its own, so that a look behind the unit's end is seen.
    const std::vector<uint8_t> exact(bytes, bytes + u.size);
    if (u.kind == unit_kind::request) {
        answers.respond(u, exact.data(), false, false);
        return;
    }
    const auto *source = answers.source_of(u.channel);
    std::string line;
    receiver::describe_record(line, u, exact.data(),
                              {1, source ? source->text : "",
                               source ? receiver::source_kind_name(source->kind) : "", &custom});
    check_line(line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const size_t text = std::min<size_t>(size - 1, data[0] * 4u);
    const receiver::catalogue custom =
        receiver::parse_catalogue(std::string(data + 1, data + 1 + text));
    const receiver::settings chosen;
    receiver::responder answers(chosen, custom);
    const std::vector<uint8_t> stream(data + 1 + text, data + size);
    for (size_t at = 0; at < stream.size();) {
        const size_t have = stream.size() - at;
        const receiver::unit u = receiver::next_unit(stream.data() + at, have);
        if (u.kind == unit_kind::incomplete) {
            if (u.size <= have) abort();
            return 0;
        }
        if (u.size == 0 || u.size > have) abort();
        if (u.kind != unit_kind::garbage) take_unit(u, stream.data() + at, answers, custom);
        at += u.size;
    }
    return 0;
}
