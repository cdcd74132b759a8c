#include "tools/ruv_receiver/settings.h"

#include <strings.h>

#include <cstdio>

#include "tools/common/options.h"

namespace receiver {
namespace {

using tools::flag_row;
using tools::number_row;
using tools::option_row;
using tools::text_row;

constexpr int64_t kLargest = 1ll << 40;

constexpr tools::tool_usage kUsage = {
    "ruv_receiver",
    "Accepts RUV connections, answers their requests and prints every event as one JSON line.",
    "REQUEST is NOP, ReqSSL, ReqDataVers, GetChanID, AmKnown, CloseConn, GetRcvrVer,\n"
    "GetCustomFieldFile, AmKnown2 or its number. VERSIONS is \"default\", \"none\" or a list like\n"
    "\"6:syslog:0-1,5:alert:0,6:request:0-8\": protocol version, data type, type version.\n"
    "Exit status: 0 after an ordinary end, 1 when the work cannot be done, 64 on a usage error."};

bool parse_request(const std::string &text, uint32_t *code) {
    for (uint32_t i = 0; i < wire::kRequestCount; i++) {
        if (strcasecmp(text.c_str(), wire::kRequestNames[i]) == 0) {
            *code = i;
            return true;
        }
    }
    int64_t number;
    if (!tools::parse_number(text.c_str(), 0, 31, &number)) return false;
    *code = static_cast<uint32_t>(number);
    return true;
}

option_row mask_row(const char *name, uint32_t *mask, const char *help) {
    return {name, "REQUEST", help, [mask](const char *text) {
                for (const std::string &word : tools::split(text, ',')) {
                    uint32_t code;
                    if (!parse_request(word, &code)) return false;
                    *mask |= 1u << code;
                }
                return true;
            }};
}

bool parse_type(const std::string &text, int64_t *type) {
    static constexpr const char *kWords[] = {"request", "alert", "flow", "syslog", "windows"};
    for (int i = 0; i < 5; i++) {
        if (text == kWords[i]) {
            *type = i;
            return true;
        }
    }
    return tools::parse_number(text.c_str(), 0, 65535, type);
}

bool parse_range(const std::string &text, int64_t *first, int64_t *last) {
    auto ends = tools::split(text, '-');
    if (ends.size() > 2 || !tools::parse_number(ends[0].c_str(), 0, 65535, first)) return false;
    *last = *first;
    return ends.size() == 1 || (tools::parse_number(ends[1].c_str(), *first, 65535, last));
}

bool parse_versions(const char *text, std::vector<offered_version> *versions) {
    if (std::string_view(text) == "none") return true;
    for (const std::string &entry : tools::split(text, ',')) {
        auto pieces = tools::split(entry, ':');
        int64_t ver, type, first, last;
        if (pieces.size() != 3 || !tools::parse_number(pieces[0].c_str(), 0, 65535, &ver) ||
            !parse_type(pieces[1], &type) || !parse_range(pieces[2], &first, &last))
            return false;
        for (int64_t i = first; i <= last; i++) {
            versions->push_back({static_cast<uint16_t>(ver), static_cast<uint16_t>(type),
                                 static_cast<uint16_t>(i)});
        }
    }
    return true;
}

constexpr const char *kDefaultVersions =
    "6:request:0-8,1-5:alert:0,3-5:flow:0,3-5:syslog:0,3-5:windows:0,"
    "6:alert:0-2,6:flow:0-2,6:syslog:0-2,6:windows:0-2";

/** The default list names ranges of protocol versions, which a command line need not do. */
std::vector<offered_version> default_versions() {
    std::vector<offered_version> versions;
    for (const std::string &entry : tools::split(kDefaultVersions, ',')) {
        auto pieces = tools::split(entry, ':');
        int64_t first, last;
        parse_range(pieces[0], &first, &last);
        for (int64_t ver = first; ver <= last; ver++) {
            parse_versions((std::to_string(ver) + ":" + pieces[1] + ":" + pieces[2]).c_str(),
                           &versions);
        }
    }
    return versions;
}

bool parse_receiver_version(const char *text, receiver_version *version) {
    auto pieces = tools::split(text, '.');
    int64_t numbers[3];
    if (pieces.size() != 5 || pieces[3].size() > 2) return false;
    for (int i = 0; i < 3; i++) {
        if (!tools::parse_number(pieces[i].c_str(), 0, 65535, &numbers[i])) return false;
    }
    version->major = static_cast<uint16_t>(numbers[0]);
    version->minor = static_cast<uint16_t>(numbers[1]);
    version->dot = static_cast<uint16_t>(numbers[2]);
    for (size_t i = 0; i < 2; i++) version->patch[i] = i < pieces[3].size() ? pieces[3][i] : '\0';
    return tools::parse_unsigned(pieces[4].c_str(), UINT64_MAX, &version->buildstamp);
}

bool parse_result_word(const char *text, fault_settings *faults) {
    std::string digits = text;
    if (digits.size() != 16 || digits.find_first_not_of("0123456789abcdefABCDEF") != digits.npos)
        return false;
    for (size_t i = 0; i < 8; i++)
        faults->result_word[i] = static_cast<uint8_t>(stoul(digits.substr(2 * i, 2), nullptr, 16));
    return faults->bad_result = true;
}

template <typename Value>
option_row choice_row(const char *name, const char *words, Value *target,
                      std::vector<std::pair<const char *, Value>> choices, const char *help) {
    return {name, words, help, [=](const char *text) {
                for (auto &[word, value] : choices) {
                    if (std::string_view(word) != text) continue;
                    *target = value;
                    return true;
                }
                return false;
            }};
}

std::vector<option_row> service_rows(settings *s) {
    return {
        text_row("listen", "ADDRESS", &s->listen, "address to listen on (127.0.0.1)"),
        number_row("port", "N", 0, 65535, &s->port, "port to listen on, 0 takes any free one (0)"),
        flag_row("print-port", &s->print_port, "print the port alone on the first line"),
        choice_row<int64_t>("generation", "5|6", &s->generation, {{"5", 5}, {"6", 6}},
                            "5 answers no request at all (6)"),
        choice_row<tls_mode>("tls", "MODE", &s->tls,
                             {{"none", tls_mode::none},
                              {"always", tls_mode::always},
                              {"request", tls_mode::request},
                              {"any", tls_mode::any}},
                             "none, always, request, or any (none)"),
        text_row("cert", "FILE", &s->cert, "PEM certificate chain; made on the fly when absent"),
        text_row("key", "FILE", &s->key, "PEM private key of --cert"),
        text_row("client-ca", "FILE", &s->client_ca, "demand client certificates of these issuers"),
        text_row("ciphers", "LIST", &s->ciphers,
                 "ciphers up to TLS 1.2, as the TLS library names them"),
        choice_row<std::string>("tls-min", "VERSION", &s->tls_min,
                                {{"1.0", "1.0"}, {"1.1", "1.1"}, {"1.2", "1.2"}, {"1.3", "1.3"}},
                                "lowest TLS version, 1.0 to 1.3 (1.0)"),
        {"versions", "VERSIONS", "data type versions on offer (default)",
         [s](const char *text) {
             s->versions.clear();
             s->own_versions = std::string_view(text) != "default";
             return !s->own_versions || parse_versions(text, &s->versions);
         }},
        {"catalogue", "FILE", "offer this custom-field file",
         [s](const char *text) {
             s->catalogue = text;
             return s->offers_catalogue = !s->catalogue.empty();
         }},
        choice_row<bool>("known", "none|all", &s->knows_all, {{"none", false}, {"all", true}},
                         "answer to AmKnown (all)"),
        number_row("cid-base", "N", INT32_MIN, INT32_MAX, &s->cid_base,
                   "first channel id to hand out (1)"),
        {"receiver-version", "A.B.C.P.N", "answer to GetRcvrVer (9.4.2.a1.20240131120000)",
         [s](const char *text) { return parse_receiver_version(text, &s->version); }},
        number_row("receive-buffer", "BYTES", 1, 1 << 30, &s->receive_buffer,
                   "size of the socket's receive buffer"),
    };
}

std::vector<option_row> output_rows(settings *s) {
    return {
        number_row("count", "N", 1, kLargest, &s->count, "end after N events"),
        number_row("connections", "N", 1, kLargest, &s->connections,
                   "end after N connections have closed"),
        text_row("save", "FILE", &s->save, "keep the bytes received, whole units at a time"),
        text_row("read", "FILE", &s->read, "decode a saved stream instead of listening"),
        flag_row("quiet", &s->quiet, "count only; print one line of totals at the end"),
        flag_row("verbose", &s->verbose, "print connections, requests and skipped bytes too"),
        flag_row("progress", &s->progress, "a line of counts each second on standard error"),
    };
}

std::vector<option_row> fault_rows(settings *s) {
    fault_settings *f = &s->faults;
    return {
        mask_row("refuse", &f->refuse, "answer REQUEST[,REQUEST...] with a refusal"),
        mask_row("silent", &f->silent, "never answer REQUEST[,REQUEST...]"),
        {"silent-nop", nullptr, "the same as --silent NOP",
         [f](const char *) { return (f->silent |= 1u << wire::kNop) != 0; }},
        mask_row("truncate", &f->truncate, "close in the middle of the answer to REQUEST"),
        {"garbage-result", nullptr, "answer with OKAY and a byte too many, which is no OKAY",
         [f](const char *) { return parse_result_word("4f4b415900000001", f); }},
        {"result-word", "HEX", "sixteen digits that stand for OKAY in every answer",
         [f](const char *text) { return parse_result_word(text, f); }},
        number_row("close-after", "N", 0, kLargest, &f->close_after,
                   "close a connection after its N-th event"),
        number_row("reset-after", "N", 0, kLargest, &f->reset_after,
                   "reset a connection after its N-th event"),
        number_row("stall-after", "N", 0, kLargest, &f->stall_after,
                   "stop reading after a connection's N-th event"),
        number_row("slow", "BYTES", 1, kLargest, &f->slow, "read so many bytes a second at most"),
        number_row("delay", "MS", 1, 3600000, &f->delay, "wait before every answer"),
        {"hostile-count", "N", "claim N entries in the version list",
         [f](const char *text) {
             return f->hostile_count = tools::parse_number(text, INT32_MIN, INT32_MAX, &f->count);
         }},
        {"hostile-size", "N", "claim N bytes of custom-field file",
         [f](const char *text) {
             return f->hostile_size = tools::parse_number(text, INT32_MIN, INT32_MAX, &f->size);
         }},
        number_row("accept-faulty", "K", 0, kLargest, &s->accept_faulty,
                   "the faults strike the first K connections only"),
    };
}

}  // namespace

settings read_command_line(int argc, char **argv) {
    settings s;
    std::vector<option_row> rows = service_rows(&s);
    for (auto group : {output_rows(&s), fault_rows(&s)})
        rows.insert(rows.end(), group.begin(), group.end());
    uint32_t without = 0;
    rows.push_back(mask_row("without", &without, "leave REQUEST out of the versions on offer"));
    tools::parse_options(kUsage, rows, argc, argv);
    if (s.cert.empty() != s.key.empty())
        tools::usage_error(kUsage, "options '--cert' and '--key' belong together");
    if (!s.own_versions) s.versions = default_versions();
    // A Receiver without a custom-field file does not claim to have one, unless it is told to.
    if (!s.offers_catalogue && !s.own_versions) without |= 1u << wire::kGetCustomFieldFile;
    std::erase_if(s.versions, [without](const offered_version &v) {
        return v.ruv_type == wire::kRequest && v.ruv_type_ver < 32 &&
               (without >> v.ruv_type_ver & 1) != 0;
    });
    return s;
}

}  // namespace receiver
