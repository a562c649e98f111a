/// @file
/// Where a stream's bottom channel comes from.
///
/// Threading: createStreamWithFlags runs on the caller's thread and blocks for
/// as long as opening takes. Sources hold no locks.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/engine/TavroError.hpp>

#include <cstdint>
#include <string>

using TavroSourceFlags = uint64_t;
constexpr TavroSourceFlags TavroSourceFlagDecode = 1;
constexpr TavroSourceFlags TavroSourceFlagAutoFree = 2;
constexpr TavroSourceFlags TavroSourceFlagFloat = 4;
constexpr TavroSourceFlags TavroSourceFlagMono = 8;
constexpr TavroSourceFlags TavroSourceFlag3D = 16;
constexpr TavroSourceFlags TavroSourceFlagPrescan = 32;
constexpr TavroSourceFlags TavroSourceFlagRestrictRate = 64;

class TAVRO_API TavroSource {
  public:
    virtual ~TavroSource() = default;
    /// A new channel on every call (the caller owns it), or 0 with the error
    /// stored when one is asked for.
    virtual uint32_t createStreamWithFlags(TavroSourceFlags flags, TavroError* error = nullptr) = 0;
    virtual std::string displayName() const = 0;
};
