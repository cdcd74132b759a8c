// Parameters that another process has sent: any archive is decoded or refused, with memory in
// proportion to its size, and what was decoded comes out the same when it is encoded again.
//
// Input: a byte that chooses the type, then the characters of the archive, a byte each; with the
// high bit set, four bytes each as they travel.
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <boost/archive/polymorphic_iarchive.hpp>
#include <boost/archive/polymorphic_oarchive.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <string>

#include "lpc/value_archive.h"

namespace {

// What is allocated through operator new, and the most of it since the last reset.
std::atomic<size_t> g_live, g_peak;

void *take(size_t size) noexcept {
    void *block = malloc(size == 0 ? 1 : size);
    if (!block) return nullptr;
    g_live += malloc_usable_size(block);
    g_peak = std::max(g_peak.load(), g_live.load());
    return block;
}

void *take_or_throw(size_t size) {
    void *block = take(size);
    if (!block) throw std::bad_alloc();
    return block;
}

void give_back(void *block) noexcept {
    if (block) g_live -= malloc_usable_size(block);
    free(block);
}

}  // namespace

// All forms, so that none meets the other half of another library's.
void *operator new(size_t size) {
    return take_or_throw(size);
}
void *operator new[](size_t size) {
    return take_or_throw(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return take(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return take(size);
}
void operator delete(void *block) noexcept {
    give_back(block);
}
void operator delete[](void *block) noexcept {
    give_back(block);
}
void operator delete(void *block, size_t) noexcept {
    give_back(block);
}
void operator delete[](void *block, size_t) noexcept {
    give_back(block);
}
void operator delete(void *block, const std::nothrow_t &) noexcept {
    give_back(block);
}
void operator delete[](void *block, const std::nothrow_t &) noexcept {
    give_back(block);
}

namespace {

using namespace velmor_com;
using namespace velmor_com::NQ::LPC;
using namespace velmor_com::NQ::manageability;

template <class T>
bool decode(const std::wstring &text, Param_Type *type, T *value) {
    SerializationFactory factory;
    std::wstringstream stream(text);
    InArchive *archive = nullptr;
    bool decoded = false;
    try {
        factory.createIarchive(stream, archive);
        *type = load_type(*archive);
        load_value(*archive, *value);
        decoded = true;
    } catch (const std::exception &) {
    }
    factory.destroyIarchive(archive);
    return decoded;
}

template <class T>
std::wstring encode(Param_Type type, const T &value) {
    SerializationFactory factory;
    std::wstringstream stream;
    OutArchive *archive = nullptr;
    factory.createOarchive(stream, archive);
    save_type(*archive, type);
    save_value(*archive, value);
    factory.destroyOarchive(archive);
    return stream.str();
}

template <class T>
void try_type(const std::wstring &text) {
    T first{}, second{};
    Param_Type type{}, again{};
    const size_t before = g_live;
    g_peak = g_live.load();
    const bool decoded = decode(text, &type, &first);
    // An entry of two empty texts is a handful of characters and a few hundred bytes of lists.
    if (g_peak - before > 65536 + 600 * text.size()) abort();
    if (!decoded) return;
    if (type < ptReturnValue || type > ptNotificationId) abort();
    const std::wstring encoded = encode(type, first);
    if (!decode(encoded, &again, &second) || again != type) abort();
    if (encode(again, second) != encoded) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    std::wstring text;
    if (data[0] & 128) {
        text.resize((size - 1) / sizeof(wchar_t));
        memcpy(text.data(), data + 1, text.size() * sizeof(wchar_t));
    } else {
        text.assign(data + 1, data + size);
    }
    static constexpr void (*kTypes[])(const std::wstring &) = {
        try_type<bool>,
        try_type<int>,
        try_type<unsigned long>,
        try_type<std::wstring>,
        try_type<LogonState>,
        try_type<Lpc_OneSectionHandle>,
        try_type<Lpc_MultipleSectionsHandle>,
        try_type<Lpc_PolicyObjectContainer>,
        try_type<cmx::updater::tag_PRODUCT_RETURN_VALUE>,
        try_type<cmx::updater::tag_UPDATE_STATE>,
    };
    kTypes[(data[0] & 127) % (sizeof kTypes / sizeof *kTypes)](text);
    return 0;
}
