#include "lpc_interface/IPropertyCollection_Servant_Impl.h"

#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "config/conf.h"
#include "core/args.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"

namespace velmor_com::NQ::LPC {

namespace {

constexpr wchar_t kProductVersion[] = COLLECTOR_PRODUCT_VERSION;
constexpr wchar_t kLanguage[] = L"0000";

struct FreePairs {
    void operator()(key_value_pair_spec *pairs) const { conf_teardown_key_value_pair(pairs); }
};

struct FreeText {
    void operator()(char *text) const { free(text); }
};

// A line of the file as it stands there, a carriage return at its end included: unlike the texts of
// a policy it comes from this host, and it cannot hold a line feed.
void log_line(const key_value_pair &pair) {
    if (!log_enabled(kLogDebug)) return;
    const std::unique_ptr<char, FreeText> key(wstrtostr(pair.key)), value(wstrtostr(pair.value));
    if (!key || !value) throw std::bad_alloc();
    logger(kLogDebug, "\tConfig param: %s : %s", key.get(), value.get());
}

void collect(manageability::Lpc_MultipleSectionsHandle &sections) {
    sections.insert(L"General", L"szProductVer", kProductVersion);
    sections.insert(L"General", L"Language", kLanguage);
    key_value_pair_spec *parsed = nullptr;
    conf_parse_key_value_pair(g_args.conf_file, &parsed, 0);
    const std::unique_ptr<key_value_pair_spec, FreePairs> pairs(parsed);
    for (int i = 0; pairs && i < pairs->count; i++) {
        const key_value_pair &pair = *pairs->kvp[i];
        log_line(pair);
        sections.insert(L"Config", std::wstring(pair.key, static_cast<size_t>(pair.key_len)),
                        std::wstring(pair.value, static_cast<size_t>(pair.value_len)));
    }
}

}  // namespace

bool IPropertyCollection_Servant_Impl::isSoftwareExists(const std::wstring &) {
    logger(kLogInfo, "IPropertyCollection_Servant_Impl::isSoftwareExists method getting called");
    return true;
}

bool IPropertyCollection_Servant_Impl::collectProperties(
    bool, manageability::Lpc_MultipleSectionsHandle &sections) {
    logger(kLogInfo, "IPropertyCollection_Servant_Impl::collectProperties method getting called");
    try {
        collect(sections);
    } catch (const std::exception &error) {
        logger(kLogInfo, "Exception in Property Collection: %s", error.what());
        // Kept: the spelling of these two lines, searches in old logs know it.
    } catch (const char *text) {
        logger(kLogInfo, "Exeception in Property Collection: %s", text);
    } catch (const std::string &text) {
        logger(kLogInfo, "Exeception in Property Collection: %s", text.c_str());
    } catch (...) {
        logger(kLogInfo, "Unexpected exception in Property Collection");
    }
    logger(kLogInfo, "Properties Collection completed successfully");
    return true;
}

}  // namespace velmor_com::NQ::LPC
