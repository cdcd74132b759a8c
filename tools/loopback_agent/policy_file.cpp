#include "tools/loopback_agent/policy_file.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tools/loopback_agent/wide.h"

namespace loopback {

namespace {

// Texts of an object that the file does not name.
constexpr char kDefaultObject[] = "LOGRELAY1000|Collector|Configuration|Loopback policy";
constexpr char kDefaultSetting[] = "Settings|0|";

std::wstring unescape(const std::string &text) {
    std::wstring plain;
    const std::wstring wide = from_utf8(text);
    for (size_t i = 0; i < wide.size(); i++) {
        const wchar_t next = i + 1 < wide.size() ? wide[i + 1] : L' ';
        const size_t known = std::wstring(L"nr0\\").find(next);
        if (wide[i] != L'\\' || known == std::wstring::npos) {
            plain += wide[i];
            continue;
        }
        plain += L"\n\r\0\\"[known];
        i++;
    }
    return plain;
}

std::vector<std::wstring> fields(const std::string &text, size_t count) {
    std::vector<std::wstring> result;
    std::istringstream stream(text);
    for (std::string field; std::getline(stream, field, '|');) result.push_back(unescape(field));
    result.resize(count);
    return result;
}

// Collects setting objects until their policy object is complete.
class Builder {
  public:
    explicit Builder(Policy *policy) : m_policy(policy) {}
    ~Builder() { endObject(); }

    void beginObject(const std::string &text) {
        endObject();
        m_object = fields(text, 4);
        m_open = true;
    }

    void beginSetting(const std::string &text) {
        if (!m_open) beginObject(kDefaultObject);
        const auto field = fields(text, 3);
        m_settings.add(
            {field[0], static_cast<int>(wcstol(field[1].c_str(), nullptr, 10)), field[2]});
        m_policy->sections.emplace_back();
    }

    void beginSection(const std::string &name) {
        if (m_settings.size() == 0) beginSetting(kDefaultSetting);
        endSection();
        m_section = Lpc_OneSectionHandle(unescape(name));
        m_inSection = true;
    }

    bool add(const std::string &name, const std::string &value) {
        return m_inSection && m_section.insert(unescape(name), unescape(value));
    }

    void endSection() {
        if (m_inSection) m_policy->sections.back().add(std::move(m_section));
        m_inSection = false;
    }

    void endObject() {
        endSection();
        if (m_open)
            m_policy->objects.add(
                {m_object[0], m_object[1], m_object[2], m_object[3], std::move(m_settings)});
        m_settings = {};
        m_open = false;
    }

  private:
    Policy *const m_policy;
    std::vector<std::wstring> m_object;
    Lpc_PolicySettingObjectContainer m_settings;
    Lpc_OneSectionHandle m_section;
    bool m_open = false, m_inSection = false;
};

bool take_line(Builder *builder, const std::string &line) {
    if (line.empty() || line[0] == '#') return true;
    if (line.starts_with("@object ")) {
        builder->beginObject(line.substr(8));
    } else if (line.starts_with("@setting ")) {
        builder->endSection();
        builder->beginSetting(line.substr(9));
    } else if (line.front() == '[' && line.back() == ']') {
        builder->beginSection(line.substr(1, line.size() - 2));
    } else {
        const size_t equals = line.find('=');
        return equals != std::string::npos &&
               builder->add(line.substr(0, equals), line.substr(equals + 1));
    }
    return true;
}

}  // namespace

bool parse_policy(const std::string &text, Policy *policy, std::string *error) {
    Builder builder(policy);
    std::istringstream stream(text);
    size_t number = 0;
    for (std::string line; std::getline(stream, line);) {
        number++;
        if (take_line(&builder, line)) continue;
        *error = "line " + std::to_string(number) + ": no setting of a section, or one given twice";
        return false;
    }
    return true;
}

bool read_policy(const std::string &file, Policy *policy, std::string *error) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    if (!stream) {
        *error = "cannot read " + file;
        return false;
    }
    if (parse_policy(text.str(), policy, error)) return true;
    *error = file + ", " + *error;
    return false;
}

}  // namespace loopback
