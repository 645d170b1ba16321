#include "tools/record/source-name.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

namespace tools {

namespace {

struct scheme_rule {
    const char *schemes; // each with a space before and after
    const char *allowed;
};

/* A source reaches what its own kind of source is made of, and no other: nothing from the network opens a file. */
constexpr scheme_rule rules[] = {
    {" file ", "file,crypto,data"},
    {" pipe ", "pipe,crypto,data"},
    {" http https hls ", "http,https,httpproxy,tcp,tls,crypto,data"},
    {" rtsp rtsps ", "rtsp,rtsps,rtp,srtp,udp,tcp,tls,http,https,httpproxy"},
    {" rtp srtp udp udplite ", "rtp,srtp,udp,udplite"},
    {" rtmp rtmps rtmpt rtmpts rtmpe rtmpte ",
     "rtmp,rtmps,rtmpt,rtmpts,rtmpe,rtmpte,ffrtmphttp,ffrtmpcrypt,http,https,tcp,tls"},
    {" tcp tls ", "tcp,tls"},
    {" srt ", "srt"},
    {" unix ", "unix"},
};

/* Empty for a path. */
std::string scheme_of(const std::string &name)
{
    const size_t end = name.find_first_of(":,");
    if (end == std::string::npos || end < 2) return {};
    std::string scheme = name.substr(0, end);
    const auto fits = [](unsigned char c) { return std::isalnum(c) != 0 || c == '+' || c == '.' || c == '-'; };
    if (!std::ranges::all_of(scheme, fits)) return {};
    std::ranges::transform(scheme, scheme.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return scheme;
}

std::string without_secrets(const std::string &url)
{
    const size_t slashes = url.find("://");
    if (slashes == std::string::npos) return url;
    const size_t host = slashes + 3;
    std::string shown = url;
    const size_t query = shown.find('?', host);
    if (query != std::string::npos) shown.replace(query, std::string::npos, "?...");
    /* A password may have a slash, against the rules: the last @ before the query ends it. */
    const size_t at = shown.rfind('@');
    if (at != std::string::npos && at >= host) shown.erase(host, at + 1 - host);
    return shown;
}

} // namespace

source_name::source_name(const std::string &given) : url(given), shown(given)
{
    struct stat status;
    /* A name that is a file is that file, whatever its name looks like. */
    const bool is_there = stat(given.c_str(), &status) == 0;
    if (given == "-") {
        scheme = "pipe";
        url = "pipe:0";
        return;
    }
    scheme = is_there ? "" : scheme_of(given);
    if (scheme.empty() || scheme == "file") {
        path_ = scheme.empty() ? given : given.substr(5);
        scheme = "file";
        url = "file:" + path_;
        const bool exists = stat(path_.c_str(), &status) == 0;
        comes_and_goes = exists ? S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)
                                : path_.starts_with("/dev/") && !path_.starts_with("/dev/shm/");
        return;
    }
    shown = without_secrets(given);
    is_connection = given.find("://") != std::string::npos;
    comes_and_goes = is_connection;
    const size_t query = given.find('?');
    listens = query != std::string::npos && given.find("listen", query) != std::string::npos;
}

std::string source_name::allowed_protocols() const
{
    const std::string word = ' ' + scheme + ' ';
    const auto *rule = std::ranges::find_if(
        rules, [&](const scheme_rule &each) { return std::string_view(each.schemes).find(word) != std::string::npos; });
    return rule == std::end(rules) ? "" : rule->allowed;
}

std::optional<struct stat> source_name::file() const
{
    struct stat status;
    if (scheme == "pipe" ? fstat(0, &status) != 0 : path_.empty() || stat(path_.c_str(), &status) != 0)
        return std::nullopt;
    return status;
}

} // namespace tools
