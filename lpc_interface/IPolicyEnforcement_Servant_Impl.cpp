#include "lpc_interface/IPolicyEnforcement_Servant_Impl.h"

#include <unistd.h>

#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "config/conf.h"
#include "core/args.h"
#include "core/restart.h"
#include "core/siemcollector_log.h"
#include "lpc_interface/config_rewrite.h"
#include "lpc_interface/policy_rules.h"

namespace velmor_com::NQ::LPC {

namespace {

using Sections = manageability::Lpc_MultipleSectionsHandle;

// Held over a whole enforcement: the maps of the rules and the file belong to one at a time, and
// the next must compare with what this one has written.
std::mutex enforcement_lock;

// A runtime may serve a call on the very thread that waits for the agent's answer.
thread_local bool enforcing = false;

struct EnforcingOnThisThread {
    EnforcingOnThisThread() { enforcing = true; }
    ~EnforcingOnThisThread() { enforcing = false; }
    EnforcingOnThisThread(const EnforcingOnThisThread &) = delete;
    EnforcingOnThisThread &operator=(const EnforcingOnThisThread &) = delete;
};

struct FreePairs {
    void operator()(key_value_pair_spec *pairs) const { conf_teardown_key_value_pair(pairs); }
};
using Pairs = std::unique_ptr<key_value_pair_spec, FreePairs>;

/// What has been found out about the policy so far.
struct Comparison {
    key_value_pair_spec *conf;
    int local_plugins;
    int discrepancies = 0;
    bool deleted_plugin = false;
};

// A missing file is an empty one; one that is there and cannot be read must not be written over.
Pairs parse_configuration() {
    key_value_pair_spec *parsed = nullptr;
    const int failed = conf_parse_key_value_pair(g_args.conf_file, &parsed, 1);
    Pairs pairs(parsed);
    if (!pairs) throw std::bad_alloc();
    if (failed && access(g_args.conf_file, F_OK) == 0) {
        logger(kLogError, "Policy not enforced: %s cannot be read", g_args.conf_file);
        return nullptr;
    }
    return pairs;
}

void look_for_deleted_plugin(Comparison *policy, const Sections &sections) {
    std::vector<std::wstring> names;
    for (const auto &section : sections) names.push_back(section.getName());
    policy->deleted_plugin = plugin_was_deleted(names, policy->local_plugins);
    if (policy->deleted_plugin)
        logger(kLogDebug, "An Ozu plugin has been deleted.  Recreating full plugin configuration");
}

void compare_sections(Comparison *policy, const std::wstring &policy_name,
                      const Sections &sections) {
    const bool debug = log_enabled(kLogDebug);
    for (const auto &section : sections) {
        std::wstring section_name = section.getName(), name, value;
        if (debug) logger(kLogDebug, "\tSection Name: %s", log_text(section_name).c_str());
        for (size_t i = 0; section.getSettingByIndex(i, name, value); i++) {
            if (debug)
                logger(kLogDebug, "\tSetting for %s: %s = %s", log_text(policy_name).c_str(),
                       log_text(name).c_str(), log_text(value).c_str());
            policy->discrepancies +=
                update_config(policy->conf, section_name, name, value, policy->deleted_plugin);
        }
    }
}

void compare_policy(Comparison *policy, const std::wstring &softwareid,
                    IPolicyDataAccessor *accessor) {
    manageability::Lpc_PolicyObjectContainer objects;
    if (!accessor->getPolicyObjectContainer(softwareid, objects)) return;
    for (const auto &object : objects) {
        std::wstring feature, category, type, policy_name;
        object.getAttributes(feature, category, type, policy_name);
        for (const auto &setting : object.getPolicySettingObjectContainer()) {
            std::wstring setting_name, str_param;
            int int_param = 0;
            setting.getAttributes(setting_name, int_param, str_param);
            Sections sections;
            if (!accessor->getAllPolicySections(feature, category, type, setting_name, int_param,
                                                str_param, sections))
                continue;
            look_for_deleted_plugin(policy, sections);
            compare_sections(policy, policy_name, sections);
        }
    }
}

/// True when the new file is in place.
bool rewrite_configuration(const Comparison &policy) {
    logger(kLogWarn, "Updating local configuration, %d descrepancies.", policy.discrepancies);
    const std::vector<std::string> lines = new_file_lines(policy.conf, policy.deleted_plugin);
    for (const std::string &line : lines) logger(kLogInfo, "%s", line.c_str());
    std::string why;
    if (replace_config_file(g_args.conf_file, lines, &why)) return true;
    logger(kLogError, "Configuration not updated: %s", why.c_str());
    return false;
}

void enforce(const std::wstring &softwareid, IPolicyDataAccessor *accessor) {
    plugin_map.clear();
    const Pairs pairs = parse_configuration();
    if (!pairs) return;
    Comparison policy{pairs.get(), count_plugins(pairs.get())};
    compare_policy(&policy, softwareid, accessor);
    if (policy.discrepancies < 1) {
        logger(kLogDebug, "No policy update, configs are identical");
        return;
    }
    if (rewrite_configuration(policy)) restart_collector();
}

}  // namespace

IPolicyEnforcement_Servant_Impl::IPolicyEnforcement_Servant_Impl() {
    fill_config_entry_map();
}

bool IPolicyEnforcement_Servant_Impl::enforcePolicy(const std::wstring &softwareid,
                                                    IPolicyDataAccessor *paccessor) {
    logger(kLogInfo, "Enforce Policy called");
    if (!paccessor) {
        logger(kLogError, "accessor object null");
        return true;
    }
    if (enforcing) {
        logger(kLogError, "Policy not enforced: it came while another one was being read");
        return true;
    }
    std::lock_guard guard(enforcement_lock);
    const EnforcingOnThisThread here;
    try {
        enforce(softwareid, paccessor);
    } catch (const std::exception &error) {
        logger(kLogError, "Exception in Policy Enforcement: %s", error.what());
    } catch (const char *text) {
        logger(kLogError, "Exception in Policy Enforcement: %s", text);
    } catch (const std::string &text) {
        logger(kLogError, "Exception in Policy Enforcement: %s", text.c_str());
    } catch (...) {
        logger(kLogError, "Unexpected exception in Policy Enforcement");
    }
    return true;
}

bool IPolicyEnforcement_Servant_Impl::enforcePolicy(const std::wstring &, const std::wstring &,
                                                    const std::wstring &, unsigned long,
                                                    manageability::LogonState,
                                                    IPolicyDataAccessor *) {
    return true;
}

}  // namespace velmor_com::NQ::LPC
