/// @file
/// A URL value: a file path or a network address.
#pragma once

#include <tavro/Export.hpp>

#include <string>

class TAVRO_API TavroURL {
  public:
    TavroURL() = default;
    static TavroURL fileURLWithPath(const std::string& path);
    static TavroURL URLWithString(const std::string& text);

    bool isFileURL() const { return file_; }
    /// The file-system path of a file URL (empty for other URLs).
    std::string path() const;
    std::string absoluteString() const { return text_; }
    /// The last component of the path, or "" when there is none.
    std::string lastPathComponent() const;

    bool operator==(const TavroURL& o) const { return text_ == o.text_; }

  private:
    std::string text_;
    bool file_ = false;
};
