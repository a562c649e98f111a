#include <tavro/engine/TavroError.hpp>

#include <bass.h>

#include <array>
#include <cstdio>

const char* const TavroErrorDomain = "TavroErrorDomain";
const char* const TavroLocalizedDescriptionKey = "TavroLocalizedDescriptionKey";

namespace {

// Indexed by platform error code. The gaps are codes the platform never
// reports (or reports without a settled meaning); they stay out through the
// presence mask and get the numbered fallback text instead.
constexpr std::array<const char*, 50> kDescriptions = {
    "OK",                          // 0
    "Memory error",                // 1
    "Cannot open file",            // 2
    "No driver",                   // 3
    "Sample buffer lost",          // 4
    "Invalid handle",              // 5
    "Unsupported sample format",   // 6
    "Invalid position",            // 7
    "BASS not initialized",        // 8
    "BASS not started",            // 9
    "SSL/HTTPS not available",     // 10
    "Device needs reinit",         // 11
    nullptr,                       // 12
    nullptr,                       // 13
    "Already initialized/paused",  // 14
    nullptr,                       // 15
    nullptr,                       // 16
    "File contains no audio",      // 17
    "No free channel",             // 18
    "Illegal type",                // 19
    "Illegal parameter",           // 20
    "No 3D support",               // 21
    "No EAX support",              // 22
    "Illegal device number",       // 23
    "Not playing",                 // 24
    "Illegal sample rate",         // 25
    nullptr,                       // 26
    "Stream is not a file stream", // 27
    nullptr,                       // 28
    "No hardware voices",          // 29
    nullptr,                       // 30
    "File has no sample data",     // 31
    "No internet connection",      // 32
    "Cannot create file",          // 33
    "Effects not available",       // 34
    nullptr,                       // 35
    nullptr,                       // 36
    "Action not available",        // 37
    "Decoding channel mismatch",   // 38
    "DirectX missing",             // 39
    "Timeout",                     // 40
    "Unsupported file format",     // 41
    "Speaker unavailable",         // 42
    "Invalid BASS version",        // 43
    "Codec not supported",         // 44
    "Channel/file ended",          // 45
    "Device busy",                 // 46
    "Unstreamable file",           // 47
    "Unsupported protocol",        // 48
    "Access denied",               // 49
};

// Bit n set: code n has an entry above.
constexpr uint64_t kPresenceMask = 0x3FFE7ABFE4FFFull;

constexpr bool maskMatchesTable() {
    for (size_t i = 0; i < kDescriptions.size(); ++i)
        if (((kPresenceMask >> i) & 1) != (kDescriptions[i] != nullptr)) return false;
    return true;
}
static_assert(maskMatchesTable(), "presence mask and description table disagree");

} // namespace

TavroError::TavroError() : TavroError(0, kDescriptions[0]) {}

TavroError::TavroError(int64_t code, std::string description)
    : domain_(TavroErrorDomain), code_(code), userInfo_{{TavroLocalizedDescriptionKey, std::move(description)}} {}

TavroError TavroError::errorFromBassCode(int32_t code) { return TavroError(code, descriptionForBassCode(code)); }

TavroError TavroError::currentError() { return errorFromBassCode(BASS_ErrorGetCode()); }

TavroError TavroError::errorWithMessage(const std::string& message) { return TavroError(-1, message); }

std::string TavroError::descriptionForBassCode(int32_t code) {
    // Compared as unsigned so that negative codes fall outside the table.
    const auto index = static_cast<uint32_t>(code);
    if (index < kDescriptions.size() && ((kPresenceMask >> index) & 1)) return kDescriptions[index];
    char text[32];
    std::snprintf(text, sizeof text, "BASS error %d", code);
    return text;
}

std::string TavroError::localizedDescription() const {
    const auto it = userInfo_.find(TavroLocalizedDescriptionKey);
    return it == userInfo_.end() ? std::string() : it->second;
}
