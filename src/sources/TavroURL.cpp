#include <tavro/TavroURL.hpp>

#include <cctype>
#include <string>
#include <unistd.h>

namespace {
std::string percentDecode(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}
std::string percentEncodePath(const std::string& p) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : p) {
        if (std::isalnum(c) || std::string("/-._~!$&'()*+,;=:@").find(static_cast<char>(c)) != std::string::npos) out += static_cast<char>(c);
        else out += '%', out += hex[c >> 4], out += hex[c & 15];
    }
    return out;
}
} // namespace

TavroURL TavroURL::fileURLWithPath(const std::string& path) {
    TavroURL u;
    u.file_ = true;
    // A relative path is taken from the current directory, as file URLs are absolute.
    std::string absolute = path;
    if (absolute.empty() || absolute[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd)) absolute = std::string(cwd) + "/" + absolute;
    }
    u.text_ = "file://" + percentEncodePath(absolute);
    return u;
}

TavroURL TavroURL::URLWithString(const std::string& text) {
    TavroURL u;
    u.text_ = text;
    u.file_ = text.rfind("file://", 0) == 0;
    return u;
}

std::string TavroURL::path() const {
    if (!file_) {
        // The path part of a network URL, for completeness.
        const auto scheme = text_.find("://");
        if (scheme == std::string::npos) return "";
        const auto slash = text_.find('/', scheme + 3);
        if (slash == std::string::npos) return "";
        return percentDecode(text_.substr(slash, text_.find_first_of("?#", slash) - slash));
    }
    std::string rest = text_.substr(7);
    // file://host/path: keep only the path.
    const auto slash = rest.find('/');
    return percentDecode(slash == std::string::npos ? "" : rest.substr(slash));
}

std::string TavroURL::lastPathComponent() const {
    std::string p = path();
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (p.empty() || p == "/") return p;
    const auto slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}
