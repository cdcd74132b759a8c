// A runtime and a helper library in one, for test_transcript.py: it writes down in the file
// "transcript" beside it what the collector asks of it, in order, and plays the calls of the file
// "script". Parameters are spelled out here and not encoded by the framework.
//
//   script   a call on each line: service, then its parameters, separated by tabs
//   answers  what the agent answers to the collector's calls, one after another: code, parameters
//
// Faults, by a file of that name: "refuse" and "throw" (initializeLPCLib), "no factory", "no
// logger".
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lpc/serialization.h"
#include "lpc/vlr_runtime.h"

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

using namespace velmor_com::NQ::LPC;

namespace {

constexpr wchar_t kHeader[] = L"22 serialization::archive ";
constexpr wchar_t kRelease[] = L"14 ";  // of the archive; an older one than any collector's

std::string beside_library(const char *name) {
    Dl_info info;
    if (!dladdr(reinterpret_cast<void *>(&beside_library), &info)) return name;
    const std::string library = info.dli_fname;
    return library.substr(0, library.rfind('/') + 1) + name;
}

bool has_file(const char *name) {
    return access(beside_library(name).c_str(), F_OK) == 0;
}

void fail_by(const char *fault) {
    if (has_file(fault)) throw std::runtime_error("the runtime's own words");
}

void note(const std::string &line) {
    static std::mutex guard;
    std::lock_guard hold(guard);
    std::ofstream(beside_library("transcript"), std::ios::app) << line << "\n";
}

std::string narrow(const std::wstring &text) {
    std::string out;
    for (const wchar_t c : text) out += c < 128 ? static_cast<char>(c) : '?';
    return out;
}

std::vector<std::string> fields(const std::string &line) {
    std::vector<std::string> all;
    std::istringstream stream(line);
    for (std::string field; std::getline(stream, field, '\t');) all.push_back(field);
    return all;
}

std::string archive_of(const std::string &field) {
    const std::wstring text = kHeader + (kRelease + std::wstring(field.begin(), field.end()));
    return {reinterpret_cast<const char *>(text.data()), text.size() * sizeof(wchar_t)};
}

// The characters behind the header; a parameter that is no archive is told apart.
std::string field_of(const std::string &bytes) {
    const std::wstring text(reinterpret_cast<const wchar_t *>(bytes.data()), bytes.size() / 4);
    const size_t release = std::char_traits<wchar_t>::length(kHeader);
    if (bytes.size() % 4 != 0 || !text.starts_with(kHeader) || !text.ends_with(L"\n"))
        return "no archive";
    const std::string field = narrow(text.substr(text.find(L' ', release) + 1));
    return field.substr(0, field.size() - 1);
}

class Queues : public IObjectConnector {
  public:
    bool write(const void *bytes, size_t size) override {
        m_out += "\t" + field_of({static_cast<const char *>(bytes), size});
        return true;
    }
    int invoke(bool wait, unsigned timeout) override;
    bool nextSize(size_t *size) override {
        if (m_in.empty()) return false;
        *size = m_in.front().size();
        return true;
    }
    bool read(void *bytes, size_t size) override {
        if (m_in.empty() || m_in.front().size() != size) return false;
        m_in.front().copy(static_cast<char *>(bytes), size);
        m_in.pop_front();
        return true;
    }
    void fill(const std::vector<std::string> &line) {
        for (size_t i = 1; i < line.size(); i++) m_in.push_back(archive_of(line[i]));
    }
    std::string written() { return std::move(m_out); }

  private:
    std::deque<std::string> m_in;
    std::string m_out;
};

std::ifstream answers;

int Queues::invoke(bool wait, unsigned timeout) {
    note("invoke " + std::to_string(wait) + " " + std::to_string(timeout) + written());
    std::string line;
    std::getline(answers, line);
    fill(fields(line));
    return line.empty() ? 12 : std::stoi(line);
}

class Runtime : public ILPCRepository, public IVlrLpcFactory, public IVlrLpcLogger {
  public:
    IServiceAdaptor *findAdaptor(const char *id) override { return m_adaptors[id]; }
    void registerAdaptor(const char *id, IServiceAdaptor *adaptor) override;
    IVlrLpcObject *createObject(const ObjectRequest &request) override;
    void destroyObject(IVlrLpcObject *&object) override {
        note(object == this ? "destroyObject repository" : "destroyObject connector");
        if (object != this) delete object;
        object = nullptr;
    }
    void setMethod(unsigned kind, void (*)(const wchar_t *, const wchar_t *)) override {
        note("setMethod " + std::to_string(kind));
    }
    void setGeneral(void (*general)(int, const wchar_t *)) override {
        note("setGeneral");
        for (const int level : {1, 2, 3, 4, 5, 0, 9})
            general(level, (L"level " + std::to_wstring(level)).c_str());
    }
    void play();
    void end();

    std::thread player;

  private:
    std::map<std::string, IServiceAdaptor *> m_adaptors;  ///< its own, as of the contract
};
Runtime runtime;

void Runtime::registerAdaptor(const char *id, IServiceAdaptor *adaptor) {
    note(std::string("registerAdaptor ") + id);
    m_adaptors[id] = adaptor;
    if (m_adaptors.size() == 3 && !player.joinable()) player = std::thread([] { runtime.play(); });
}

IVlrLpcObject *Runtime::createObject(const ObjectRequest &request) {
    const auto text = [](const char *name) { return name ? std::string(" ") + name : " -"; };
    note("createObject " + std::to_string(request.kind) + " " + std::to_string(request.number) +
         text(request.provider) + text(request.service) + text(request.method));
    fail_by("throw later");
    if (request.kind == ObjectRequest::kRepository) return static_cast<ILPCRepository *>(this);
    return request.kind == ObjectRequest::kConnector ? new Queues : nullptr;
}

void Runtime::play() {
    std::ifstream script(beside_library("script"));
    answers.open(beside_library("answers"));
    for (std::string line; std::getline(script, line);) {
        const std::vector<std::string> call = fields(line);
        Queues queues;
        queues.fill(call);
        const int code = m_adaptors[call[0]]->dispatch(&queues);
        note("answer " + std::to_string(code) + queues.written());
    }
    note("script done");
}

void Runtime::end() {
    if (player.joinable()) player.join();
    for (const auto &[id, adaptor] : m_adaptors) delete adaptor;
    m_adaptors.clear();
}

}  // namespace

ENTRY_POINT int generatePassphraseAndSaveToRegistry(const char *softwareId, unsigned char *buffer,
                                                    uint32_t *length) {
    note(std::string("generatePassphraseAndSaveToRegistry ") + softwareId + " " +
         std::to_string(*length));
    for (uint32_t i = 0; i < *length; i++) buffer[i] = static_cast<unsigned char>('a' + i % 26);
    *length = 20;
    return -5;  // nobody looks at it
}

ENTRY_POINT int initializeLPCLib(const char *processId, const wchar_t *tmpDir,
                                 ISerializationFactory *archives, VlrLpcCallbacks *callbacks,
                                 ServicesCrossObjectFactory *crossObjects) {
    unsigned char phrase[64];
    unsigned long size = sizeof(phrase);
    const bool given = callbacks->validationCallback_(nullptr, 0, phrase, &size);
    note(std::string("initializeLPCLib ") + processId + " " + narrow(tmpDir) + " mode " +
         std::to_string(archives->getArchiveMode()) + (crossObjects ? " objects" : " nothing"));
    fail_by("throw");
    note("passphrase " + std::to_string(given) + " " +
         std::string(reinterpret_cast<char *>(phrase), given ? size : 0));
    return has_file("refuse") ? 7 : 0;
}

ENTRY_POINT int enableLPCLib() {
    note("enableLPCLib");
    return 0;
}

ENTRY_POINT IVlrLpcFactory *getVlrLpcFactory() {
    note("getVlrLpcFactory");
    return has_file("no factory") ? nullptr : &runtime;
}

ENTRY_POINT IVlrLpcLogger *getVlrLpcLogger() {
    note("getVlrLpcLogger");
    return has_file("no logger") ? nullptr : &runtime;
}

ENTRY_POINT unsigned createAsyncResultId() {
    return 1;
}

ENTRY_POINT int disableLPCLib() {
    note("disableLPCLib");
    fail_by("throw later");
    return 0;
}

ENTRY_POINT int deinitializeLPCLib() {
    runtime.end();
    note("deinitializeLPCLib");
    fail_by("throw later");
    return 0;
}

namespace {

// Runs when the library is taken out of the process.
struct Unloaded {
    ~Unloaded() { note("unloaded"); }
};
const Unloaded unloaded;

}  // namespace
