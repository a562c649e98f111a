/// @file
/// A local file: opened as a stream, or as a tracker module when it is one.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/TavroURL.hpp>
#include <tavro/sources/TavroSource.hpp>

#include <memory>

class TAVRO_API TavroFileSource : public TavroSource {
  public:
    static std::shared_ptr<TavroFileSource> initWithFileURL(const TavroURL& fileURL);
    explicit TavroFileSource(TavroURL fileURL) : fileURL_(std::move(fileURL)) {}

    const TavroURL& fileURL() const { return fileURL_; }
    uint32_t createStreamWithFlags(TavroSourceFlags flags, TavroError* error = nullptr) override;
    std::string displayName() const override;

    /// The platform's stream flags for a set of source flags (bits 128 and up ignored).
    static uint32_t bassFlagsFromSourceFlags(TavroSourceFlags flags);

  private:
    TavroURL fileURL_;
};
