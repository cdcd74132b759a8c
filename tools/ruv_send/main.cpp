// ruv_send: sends event records of any type and version from the command line or standard input.

#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "tools/common/json_reader.h"
#include "tools/common/options.h"
#include "tools/ruv_send/session.h"

namespace {

using namespace sender;
using std::chrono::steady_clock;

/** Spreads the records evenly over time. */
class pacer {
  public:
    explicit pacer(int64_t rate) : rate_(rate), start_(steady_clock::now()) {}

    void wait() {
        if (rate_ == 0) return;
        auto due = start_ + std::chrono::microseconds(1000000 * done_++ / rate_);
        std::this_thread::sleep_until(due);
    }

    double seconds() const {
        return std::chrono::duration<double>(steady_clock::now() - start_).count();
    }

  private:
    int64_t rate_, done_ = 0;
    steady_clock::time_point start_;
};

job base_job(const settings &chosen) {
    return {chosen.type, static_cast<int>(chosen.version), static_cast<int>(chosen.subversion),
            chosen.source, chosen.fields};
}

/** Reads a line without its end; false at the end of the input. */
bool read_line(std::string *line) {
    static std::unique_ptr<char, void (*)(void *)> buffer(nullptr, free);
    static size_t size = 0;
    char *raw = buffer.release();
    ssize_t length = getline(&raw, &size, stdin);
    buffer.reset(raw);
    if (length < 0) return false;
    if (length > 0 && raw[length - 1] == '\n') length--;
    line->assign(raw, static_cast<size_t>(length));
    return true;
}

/** The records of plain lines carry the time at which they were read, if they can. */
job job_of_line(const settings &chosen, const std::string &line) {
    job wanted = base_job(chosen);
    bool stamped = chosen.type != 3;
    for (const field_value &field : chosen.fields) stamped |= field.name == "collect_time";
    if (!stamped) wanted.fields.push_back({"collect_time", std::to_string(time(nullptr)), true});
    wanted.fields.push_back({"message", line});
    return wanted;
}

bool take_number(const std::string &text, int64_t high, int *target) {
    int64_t number;
    if (!tools::parse_number(text.c_str(), 0, high, &number)) return false;
    *target = static_cast<int>(number);
    return true;
}

/** Takes a member that stands for an option; `*good` tells whether its value will do. */
bool take_option(const std::string &name, const std::string &value, job *wanted, bool *good) {
    if (name == "type") {
        *good = (wanted->type = type_of_name(value)) != 0;
    } else if (name == "ver") {
        *good = take_number(value, 6, &wanted->version);
    } else if (name == "subver") {
        *good = take_number(value, 3, &wanted->subversion);
    } else if (name == "hostid" || name == "ipv4" || name == "ipv6") {
        wanted->source = {name == "hostid" ? 3 : name == "ipv4" ? 1 : 2, value};
        *good = valid_source(wanted->source);
    } else {
        return false;
    }
    return true;
}

bool job_of_json(const settings &chosen, const std::string &line, job *wanted, std::string *error) {
    std::vector<tools::json_member> members;
    if (!tools::read_json_object(line, &members, error)) return false;
    *wanted = base_job(chosen);
    for (const tools::json_member &member : members) {
        for (const std::string &value : member.values) {
            bool good = true;
            if (!take_option(member.name, value, wanted, &good))
                wanted->fields.push_back({member.name, value});
            if (good) continue;
            *error = "bad value '" + value + "' for '" + member.name + "'";
            return false;
        }
    }
    return true;
}

void send_options(const settings &chosen, session &run, pacer &pace) {
    job wanted = base_job(chosen);
    for (int64_t i = 0; i < chosen.count; i++) {
        pace.wait();
        if (!run.send(wanted)) return;
    }
}

void send_input(const settings &chosen, session &run, pacer &pace) {
    std::string line, error;
    while (read_line(&line)) {
        job wanted;
        pace.wait();
        if (chosen.from == input::lines) {
            wanted = job_of_line(chosen, line);
        } else if (!job_of_json(chosen, line, &wanted, &error)) {
            run.reject(error);
            continue;
        }
        if (!run.send(wanted)) return;
    }
}

}  // namespace

int main(int argc, char **argv) {
    tools::open_standard_descriptors();
    settings chosen = read_command_line(argc, argv);
    session run(chosen);
    if (!run.open()) return 1;
    pacer pace(chosen.rate);
    if (!chosen.no_send) {
        if (chosen.from == input::options) {
            send_options(chosen, run, pace);
        } else {
            send_input(chosen, run, pace);
        }
        run.finish();
    }
    return run.summarise(pace.seconds());
}
