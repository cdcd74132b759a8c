#include "tools/ruv_send/settings.h"

#include <arpa/inet.h>

#include "tools/common/options.h"

namespace sender {
namespace {

using tools::flag_row;
using tools::number_row;
using tools::option_row;
using tools::text_row;

/** The names of the fields are part of the usage text, which lives as long as the process. */
const char *epilogue() {
    static const std::string kText =
        "FIELD is the name of a setter; FIELD_hex and FIELD_base64 take bytes in that form.\n"
        "Custom fields: --set custom:NAME:TYPE=VALUE with TYPE string, boolean, int8 to int64,\n"
        "uint8 to uint64, ipv4, protocol, port, float4 (4 bytes) or float (8 bytes).\n"
        "\n  alert: " +
        field_names(1) + "\n\n  flow: " + field_names(2) + "\n\n  syslog: " + field_names(3) +
        "\n\n  windows: " + field_names(4) +
        "\n\nA line of --json is an object of such fields; its members type, ver, subver, hostid,\n"
        "ipv4 and ipv6 stand for the options of that name, and a list sets a field repeatedly.\n"
        "Each answer of the library is one JSON line on standard output.\n"
        "Exit status: 0 when all was sent, 1 when something was not, 64 on a usage error.";
    return kText.c_str();
}

tools::tool_usage usage() {
    return {"ruv_send", "Sends event records of any type and version to a Receiver.", epilogue()};
}

option_row choice_row(const char *name, const char *words, int *target,
                      std::vector<std::pair<const char *, int>> choices, const char *help) {
    return {name, words, help, [=](const char *text) {
                for (auto &[word, value] : choices) {
                    if (std::string_view(word) != text) continue;
                    *target = value;
                    return true;
                }
                return false;
            }};
}

option_row source_row(const char *name, const char *argument, int kind, settings *s,
                      const char *help) {
    return {name, argument, help, [=](const char *text) {
                s->source = {kind, text};
                return valid_source(s->source);
            }};
}

option_row modern_row(const char *name, const char *argument, std::string *target, bool *modern,
                      const char *help) {
    return {name, argument, help, [=](const char *text) {
                *target = text;
                return *modern = !target->empty();
            }};
}

std::vector<option_row> connection_rows(settings *s) {
    return {
        text_row("host", "NAME", &s->host, "Receiver (127.0.0.1)"),
        number_row("port", "N", 1, 65535, &s->port, "its port; required"),
        choice_row("ip", "any|4|6", &s->ip_mode, {{"any", 0}, {"4", 1}, {"6", 2}}, "IP mode (any)"),
        choice_row("tls", "MODE", &s->tls, {{"none", 0}, {"always", 1}, {"request", 2}},
                   "none, always or request (none)"),
        choice_row("generation", "any|5|6", &s->generation, {{"any", 0}, {"5", 1}, {"6", 2}},
                   "protocol generation asked for (any)"),
        modern_row("tls-min", "VERSION", &s->tls_min, &s->modern_tls,
                   "1.2 or 1.3: authenticated TLS, as the four options below"),
        modern_row("tls-ca", "FILE", &s->tls_ca, &s->modern_tls, "trusted certificates"),
        modern_row("tls-name", "NAME", &s->tls_name, &s->modern_tls, "name in the certificate"),
        modern_row("tls-cert", "FILE", &s->tls_cert, &s->modern_tls, "own certificate"),
        modern_row("tls-key", "FILE", &s->tls_key, &s->modern_tls, "own private key"),
        flag_row("auto-learn", &s->auto_learn, "switch automatic learning on"),
    };
}

std::vector<option_row> record_rows(settings *s) {
    return {
        {"type", "TYPE", "alert, flow, syslog or windows (syslog)",
         [s](const char *text) { return (s->type = type_of_name(text)) != 0; }},
        number_row("ver", "N", 0, 6, &s->version, "version, 0 takes the Receiver's highest (0)"),
        number_row("subver", "N", 0, 3, &s->subversion, "sub-version, 0 takes the usual one (0)"),
        {"set", "FIELD=VALUE", "set a field; in the order given",
         [s](const char *text) {
             std::string_view word = text;
             size_t equals = word.find('=');
             if (equals == word.npos || equals == 0) return false;
             s->fields.push_back(
                 {std::string(word.substr(0, equals)), std::string(word.substr(equals + 1))});
             return true;
         }},
        source_row("hostid", "TEXT", 3, s, "data source: a host id"),
        source_row("ipv4", "ADDRESS", 1, s, "data source: an IPv4 address"),
        source_row("ipv6", "ADDRESS", 2, s, "data source: an IPv6 address"),
        {"lines", nullptr, "one record for each line of standard input, as its message",
         [s](const char *) { return (s->from = input::lines, true); }},
        {"json", nullptr, "one record for each JSON object (a line) of standard input",
         [s](const char *) { return (s->from = input::json, true); }},
    };
}

std::vector<option_row> run_rows(settings *s) {
    return {
        number_row("count", "N", 1, INT64_MAX, &s->count, "send the record N times (1)"),
        number_row("rate", "N", 1, 1000000, &s->rate, "at most N records a second"),
        number_row("group", "N", 1, 1000000, &s->group, "send N records at once, then confirm"),
        flag_row("no-send", &s->no_send, "only open the connection and ask"),
        flag_row("receiver-version", &s->receiver_version, "ask for the Receiver's version"),
        flag_row("is-known", &s->is_known, "ask whether the data source is known"),
        flag_row("print-conn", &s->print_conn, "print the connection on standard error"),
        {"dump", nullptr, "hexadecimal dump of all bytes sent, on standard error",
         [s](const char *) { return (s->logging |= 0x02) != 0; }},
        {"logging", "MASK", "the library's diagnostics, as RUVSetLogging takes them",
         [s](const char *text) { return tools::parse_unsigned(text, UINT64_MAX, &s->logging); }},
        flag_row("verbose", &s->verbose, "a line for every record, not only for failures"),
    };
}

}  // namespace

bool valid_source(const source_choice &source) {
    uint8_t address[16];
    if (source.kind == 1) return inet_pton(AF_INET, source.text.c_str(), address) == 1;
    return source.kind != 2 || inet_pton(AF_INET6, source.text.c_str(), address) == 1;
}

settings read_command_line(int argc, char **argv) {
    settings s;
    std::vector<option_row> rows = connection_rows(&s);
    for (auto group : {record_rows(&s), run_rows(&s)})
        rows.insert(rows.end(), group.begin(), group.end());
    tools::parse_options(usage(), rows, argc, argv);
    if (s.port == 0) tools::usage_error(usage(), "option '--port' is missing");
    return s;
}

}  // namespace sender
