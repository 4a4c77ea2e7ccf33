#include "core/ipc/Names.h"

#include "core/platform/ZnProcess.h"

namespace zn::ipc {

namespace {

constexpr std::size_t kMaxPlainBytes = 32;

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
}

ZnString signalName(const ZnString& domain, const ZnString& object, const ZnString& signal, const char* ending) {
    const ZnString address = domain + "|" + object + "|" + signal;
    return ZnString("/zn_ipc_sig_") + sanitizeDomain(domain) + "_" + detail::hexText(detail::fnv1a(address.view())) +
           ending + detail::nameSuffix();
}

bool fits(const char* what, const ZnString& text, std::size_t maxBytes, ZnString* errorText) {
    if (text.size() <= maxBytes && !text.contains(std::string_view("\0", 1)))
        return true;
    *errorText =
        ZnString("the ") + what + " is longer than " + ZnString::number(maxBytes) + " bytes or has a zero byte";
    return false;
}

} // namespace

ZnString sanitizeDomain(const ZnString& domain) {
    std::string text = domain.str();
    for (char& c : text)
        c = isPlain(c) ? c : '_';
    const std::size_t first = text.find_first_not_of('_');
    if (first == std::string::npos)
        return "root";
    text = text.substr(first, text.find_last_not_of('_') - first + 1);
    if (text.size() <= kMaxPlainBytes)
        return text;
    return ZnString(text.substr(0, kMaxPlainBytes)) + "_" + detail::hexText(detail::fnv1a(domain.view()));
}

std::uint64_t subscriptionId(const ZnString& domain, const ZnString& object, const ZnString& signal, std::uint32_t pid,
                             const ZnString& subscriberObject) {
    ZnString text = domain + "|" + object + "|" + signal + "|sub|" + ZnString::number(pid);
    if (!subscriberObject.isEmpty())
        text += ZnString("|subObject|") + subscriberObject;
    return detail::fnv1a(text.view());
}

namespace detail {

std::uint64_t fnv1a(std::string_view text) {
    std::uint64_t hash = 0x14650FB0739D0383ULL;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ULL;
    return hash;
}

ZnString hexText(std::uint64_t value) {
    const ZnString digits = ZnString::number(value, 16);
    return ZnString(std::string(16 - digits.size(), '0')) + digits;
}

bool checkAddress(const ZnString& domain, const ZnString& object, const ZnString& signal, ZnString* errorText) {
    return fits("domain", domain, kMaxDomainBytes, errorText) && fits("object", object, kMaxObjectBytes, errorText) &&
           fits("signal", signal, kMaxSignalBytes, errorText);
}

ZnString nameSuffix() {
    return ZnString(".") + ZnString::number(ZnProcess::userId());
}

ZnString registryName(const ZnString& domain) {
    return ZnString("/zn_ipc_subs_") + sanitizeDomain(domain) + nameSuffix();
}

ZnString registryMutexName(const ZnString& domain) {
    return ZnString("/zn_ipc_subs_") + sanitizeDomain(domain) + "_mtx" + nameSuffix();
}

ZnString signalBlockName(const ZnString& domain, const ZnString& object, const ZnString& signal) {
    return signalName(domain, object, signal, "");
}

ZnString signalMutexName(const ZnString& domain, const ZnString& object, const ZnString& signal) {
    return signalName(domain, object, signal, "_mtx");
}

ZnString dispatchTablePrefix() {
    return "/zn_ipc_dispatch_tbl_v1_";
}

ZnString dispatchTableName() {
    return dispatchTablePrefix() + ZnString::number(ZnProcess::currentId()) + "_" + ZnProcess::startTime() +
           nameSuffix();
}

} // namespace detail
} // namespace zn::ipc
