#include "tools/loopback_agent/commands.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <thread>

#include "lpc/errors.h"
#include "lpc/interfaces/IPolicyEnforcement.h"
#include "lpc/interfaces/IPropertyCollection.h"
#include "lpc/interfaces/IUpdateCallback.h"
#include "tools/common/json_writer.h"
#include "tools/loopback_agent/prepare.h"
#include "tools/loopback_agent/session.h"
#include "tools/loopback_agent/wide.h"

namespace loopback {

namespace updater = velmor_com::NQ::updater;
namespace LPC = velmor_com::NQ::LPC;
using tools::json_object;

namespace {

int complain(const std::string &what) {
    std::cerr << "loopback_agent: " << what << "\n";
    return 1;
}

// Prints one object that `fill` completes.
void print(const std::function<void(json_object &)> &fill) {
    std::string line;
    {
        json_object object(line);
        fill(object);
    }
    std::cout << line << std::flush;
}

int prepare(const Options &options) {
    std::string error;
    if (!prepare_folder(options.folder, options.faults, &error)) return complain(error);
    print([&](json_object &object) { object.text("config", options.folder + "/config.xml"); });
    return 0;
}

int processes(const Options &options) {
    for (const std::string &process : running_processes(options.folder))
        print([&](json_object &object) { object.text("process", process); });
    return 0;
}

int on_process(const Options &options, const std::function<int(const std::string &)> &act) try {
    const std::string process =
        wait_for_process(options.folder, options.process, static_cast<int>(options.wait_seconds));
    if (process.empty()) return complain("no process " + options.process + "* listens");
    return act(process);
} catch (const LPC::LPCError &error) {
    return complain(std::string("the call failed: ") + error.what());
}

int in_session(const Options &options,
               const std::function<int(Session &, const std::string &)> &act) {
    Session session(options.folder);
    if (!session.ready()) return complain("the runtime cannot be loaded");
    return on_process(options, [&](const std::string &process) { return act(session, process); });
}

bool push_once(LPC::IPolicyEnforcement_Client_Impl *service, const Options &options,
               LPC::IPolicyDataAccessor *accessor) {
    const std::wstring software = from_utf8(options.software);
    if (!options.user) return service->enforcePolicy(software, accessor);
    return service->enforcePolicy(software, L"user", L"domain", 1, UBPLOGGEDON, accessor);
}

int push(const Options &options) {
    std::vector<Policy> policies(options.policies.size());
    std::string error;
    for (size_t i = 0; i < policies.size(); i++)
        if (!read_policy(options.policies[i], &policies[i], &error)) return complain(error);
    if (policies.empty() && !options.null_accessor) return complain("--policy is missing");
    return in_session(options, [&](Session &session, const std::string &process) {
        LPC::IPolicyEnforcement_Client_Impl service(process.c_str());
        for (int64_t i = 0; i < options.count; i++) {
            if (!policies.empty())
                session.accessor()->setPolicy(policies[static_cast<size_t>(i) % policies.size()]);
            const auto begin = std::chrono::steady_clock::now();
            const bool result =
                push_once(&service, options, options.null_accessor ? nullptr : session.accessor());
            const std::chrono::duration<double, std::milli> taken =
                std::chrono::steady_clock::now() - begin;
            print([&](json_object &object) {
                object.boolean("result", result);
                object.real("milliseconds", taken.count(), 4);
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(options.pause_milliseconds));
        }
        return 0;
    });
}

void append_section(std::string *out, const Lpc_OneSectionHandle &section) {
    json_object object(*out, true);
    std::wstring name, value;
    for (size_t i = 0; section.getSettingByIndex(i, name, value); i++)
        object.text(to_utf8(name), to_utf8(value));
}

int properties(const Options &options) {
    return in_session(options, [&](Session &, const std::string &process) {
        LPC::IPropertyCollection_Client_Impl service(process.c_str());
        Lpc_MultipleSectionsHandle sections;
        const bool result = service.collectProperties(true, sections);
        std::string line;
        {
            json_object object(line);
            for (const auto &section : sections) {
                object.name(to_utf8(section.getName()));
                append_section(&line, section);
            }
        }
        std::cout << line << std::flush;
        return result ? 0 : 1;
    });
}

int exists(const Options &options) {
    return in_session(options, [&](Session &, const std::string &process) {
        LPC::IPropertyCollection_Client_Impl service(process.c_str());
        const bool result = service.isSoftwareExists(from_utf8(options.software));
        print([&](json_object &object) { object.boolean("exists", result); });
        return 0;
    });
}

int update(const Options &options) {
    return in_session(options, [&](Session &, const std::string &process) {
        updater::IUpdateCallback_Client_Impl service(process.c_str());
        const std::wstring software = from_utf8(options.software);
        std::wstring value = from_utf8(options.value);
        updater::tag_UPDATE_STATE state = updater::UPDATE_STATE_RUNNING;
        int result = 0;
        if (options.notify)
            result = service.UpdateNotify(software, L"content", L"update", state);
        else if (!options.get.empty())
            result = service.GetProductInfo(software, from_utf8(options.get), value);
        else
            result = service.SetProductInfo(software, from_utf8(options.set), value);
        print([&](json_object &object) {
            object.signed_number("result", result);
            object.signed_number("state", state);
            object.text("value", to_utf8(value));
        });
        return 0;
    });
}

// Whether the process presents what the helper library has left with the agent.
int passphrase(const Options &options) {
    return on_process(options, [&](const std::string &process) {
        const std::string base = process.substr(0, process.find(':'));
        std::ifstream file(options.folder + "/" + base + ".passphrase", std::ios::binary);
        std::ostringstream kept;
        kept << file.rdbuf();
        std::string presented;
        if (!ask_runtime(options.folder, process, "passphrase", &presented))
            return complain("the runtime does not answer");
        const bool accepted = !presented.empty() && presented == kept.str();
        print([&](json_object &object) {
            object.number("bytes", presented.size());
            object.boolean("accepted", accepted);
        });
        return accepted ? 0 : 1;
    });
}

int tell_runtime(const Options &options, const char *word) {
    return on_process(options, [&](const std::string &process) {
        std::string answer;
        const bool done = ask_runtime(options.folder, process, word, &answer);
        print([&](json_object &object) { object.boolean("answered", done); });
        return 0;
    });
}

int installed(const Options &options) {
    return tell_runtime(options, "installed");
}

// The connection may go with the old runtime before the answer is out.
int reload(const Options &options) {
    return tell_runtime(options, "reload");
}

}  // namespace

const std::vector<Command> kCommands = {
    {"prepare", "lay out --dir as an agent's folder, with --fault for the faults to play", prepare},
    {"processes", "list the processes that listen", processes},
    {"push", "have --policy enforced, --count times, taking turns when there are several", push},
    {"properties", "print the properties of the collector", properties},
    {"exists", "ask whether --software is served", exists},
    {"update", "drive the update callback: --notify, --get NAME, or --set NAME", update},
    {"passphrase", "check the pass phrase that the process presents", passphrase},
    {"installed", "tell the process that the agent was started again", installed},
    {"reload", "have the process unload the runtime and load it again", reload},
};

}  // namespace loopback
