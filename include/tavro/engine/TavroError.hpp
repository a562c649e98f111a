/// @file
/// The library's error value: every failure reported through an error
/// out-parameter is one of these.
///
/// Threading: a plain value, and all factories are free of state, so any thread
/// may use them. currentError() reads the platform error code of the calling
/// thread, so call it on the thread of the failing call, before any other
/// platform call.
#pragma once

#include <tavro/Export.hpp>

#include <cstdint>
#include <map>
#include <string>

/// The domain of every error the library makes: "TavroErrorDomain".
extern TAVRO_API const char* const TavroErrorDomain;
/// The userInfo key under which an error keeps its description.
extern TAVRO_API const char* const TavroLocalizedDescriptionKey;

class TAVRO_API TavroError {
  public:
    /// Same as errorFromBassCode(0): code 0, "OK".
    TavroError();

    /// A platform failure: `code` sign-extended, with its fixed description.
    static TavroError errorFromBassCode(int32_t code);
    /// The calling thread's latest platform error.
    static TavroError currentError();
    /// One of the library's own failures: code -1.
    static TavroError errorWithMessage(const std::string& message);
    static std::string descriptionForBassCode(int32_t code);

    const std::string& domain() const { return domain_; }
    int64_t code() const { return code_; }
    const std::map<std::string, std::string>& userInfo() const { return userInfo_; }
    std::string localizedDescription() const;

    bool operator==(const TavroError&) const = default;

  private:
    TavroError(int64_t code, std::string description);

    std::string domain_;
    int64_t code_;
    std::map<std::string, std::string> userInfo_;
};
