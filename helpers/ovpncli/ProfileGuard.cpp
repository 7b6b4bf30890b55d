#include "ProfileGuard.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace {
constexpr unsigned kNoAccessForOthers = 077;
constexpr unsigned kPermissionBits = 07777;
constexpr unsigned kPrivateFileMode = 0600;
constexpr std::size_t kMaxNameInReason = 40;

struct Allowed {
    std::string_view name;
    std::size_t minArgs;
    std::size_t maxArgs;
};

// What a client profile needs. Nothing here names a program, a plugin or a file openvpn would
// write; auth-user-pass is the one file it reads, checked on its own below.
constexpr Allowed kAllowed[] = {
    {"client", 0, 0},
    {"tls-client", 0, 0},
    {"pull", 0, 0},
    {"dev", 1, 1},
    {"dev-type", 1, 1},
    {"proto", 1, 1},
    {"remote", 1, 3},
    {"remote-random", 0, 0},
    {"port", 1, 1},
    {"rport", 1, 1},
    {"nobind", 0, 0},
    {"float", 0, 0},
    {"resolv-retry", 1, 1},
    {"connect-retry", 1, 2},
    {"connect-retry-max", 1, 1},
    {"connect-timeout", 1, 1},
    {"server-poll-timeout", 1, 1},
    {"persist-key", 0, 0},
    {"persist-tun", 0, 0},
    {"persist-remote-ip", 0, 0},
    {"persist-local-ip", 0, 0},
    {"remote-cert-tls", 1, 1},
    {"verify-x509-name", 1, 2},
    {"cipher", 1, 1},
    {"data-ciphers", 1, 1},
    {"data-ciphers-fallback", 1, 1},
    {"ncp-ciphers", 1, 1},
    {"auth", 1, 1},
    {"auth-nocache", 0, 0},
    {"auth-retry", 1, 1},
    {"auth-user-pass", 0, 1},
    {"key-direction", 1, 1},
    {"tls-version-min", 1, 2},
    {"tls-version-max", 1, 1},
    {"tls-cipher", 1, 1},
    {"tls-ciphersuites", 1, 1},
    {"tls-groups", 1, 1},
    {"tls-timeout", 1, 1},
    {"reneg-sec", 1, 2},
    {"hand-window", 1, 1},
    {"comp-lzo", 0, 1},
    {"compress", 0, 1},
    {"allow-compression", 1, 1},
    {"verb", 1, 1},
    {"mute", 1, 1},
    {"mute-replay-warnings", 0, 0},
    {"ping", 1, 1},
    {"ping-restart", 1, 1},
    {"ping-exit", 1, 1},
    {"keepalive", 2, 2},
    {"explicit-exit-notify", 0, 1},
    {"sndbuf", 1, 1},
    {"rcvbuf", 1, 1},
    {"tun-mtu", 1, 1},
    {"mssfix", 0, 2},
    {"fragment", 1, 2},
    {"topology", 1, 1},
    {"redirect-gateway", 0, 6},
    {"route", 1, 4},
    {"route-ipv6", 1, 3},
    {"route-delay", 0, 2},
    {"route-metric", 1, 1},
    {"route-nopull", 0, 0},
    {"block-ipv6", 0, 0},
    {"dhcp-option", 1, 2},
    {"pull-filter", 2, 2},
    {"script-security", 1, 1},
};

// Certificates and keys come inline; the forms that name a file are not on the allowlist.
constexpr std::string_view kInlineBlocks[] = {"ca",        "cert",         "key",        "tls-auth",
                                              "tls-crypt", "tls-crypt-v2", "extra-certs"};

// Levels that run nothing but openvpn's own network set-up.
constexpr std::string_view kSafeScriptLevels[] = {"0", "1"};

const Allowed *allowed(std::string_view name)
{
    const auto *found = std::find_if(std::begin(kAllowed), std::end(kAllowed),
                                     [name](const Allowed &entry) { return entry.name == name; });
    return found == std::end(kAllowed) ? nullptr : found;
}

bool isInlineBlock(std::string_view name)
{
    return std::find(std::begin(kInlineBlocks), std::end(kInlineBlocks), name) != std::end(kInlineBlocks);
}

// The name as a refusal may print it: plain lower-case directive names only, so a hostile
// profile can never put a marker word on ovpncli's output.
std::string printable(std::string_view name)
{
    const bool plain =
        !name.empty() && name.size() <= kMaxNameInReason && std::all_of(name.begin(), name.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        });
    return plain ? "'" + std::string(name) + "'" : std::string("(unprintable)");
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

// Splits one line the way openvpn does: blanks separate arguments, "..." and '...' quote,
// a backslash outside single quotes takes the next character as it is, and '#' or ';' at
// the start of an argument begins a comment. nullopt when a quote is left open.
std::optional<std::vector<std::string>> split(std::string_view line)
{
    std::vector<std::string> words;
    std::size_t i = 0;
    while (true) {
        while (i < line.size() && isSpace(line[i]))
            ++i;
        if (i == line.size() || line[i] == '#' || line[i] == ';')
            return words;
        std::string word;
        char quote = 0;
        if (line[i] == '"' || line[i] == '\'')
            quote = line[i++];
        bool closed = quote == 0;
        for (; i < line.size(); ++i) {
            const char c = line[i];
            if (c == '\\' && quote != '\'' && i + 1 < line.size()) {
                word += line[++i];
                continue;
            }
            if (quote && c == quote) {
                closed = true;
                ++i;
                break;
            }
            if (!quote && isSpace(c))
                break;
            word += c;
        }
        if (!closed)
            return std::nullopt;
        words.push_back(std::move(word));
    }
}

// One argument as openvpn reads it back: plain when that is unambiguous, otherwise in double
// quotes (arguments holding a quote or a backslash are refused, so nothing needs escaping).
std::string quoted(const std::string &word)
{
    const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("._:/@+=,-").find(c) != std::string_view::npos;
    });
    return plain ? word : "\"" + word + "\"";
}

std::string where(std::size_t lineNumber)
{
    return " on line " + std::to_string(lineNumber);
}

// The credentials file auth-user-pass names must be a plain file directly in the profile's
// folder; its name there, or a reason.
std::optional<std::string> credentialsNameIn(const std::string &path, const std::string &folder)
{
    if (path.size() <= folder.size() + 1 || path.compare(0, folder.size(), folder) != 0 || path[folder.size()] != '/')
        return std::nullopt;
    std::string name = path.substr(folder.size() + 1);
    if (name.find('/') != std::string::npos || name == "." || name == "..")
        return std::nullopt;
    return name;
}

std::string placeProblem(const ProfileGuard::Facts &facts)
{
    const auto &folder = facts.folder;
    const auto &file = facts.file;
    if (facts.folderPath.empty() || facts.folderPath.front() != '/')
        return "the profile path is not absolute";
    if (!folder.directory)
        return "the profile's folder is not a folder";
    if (folder.owner != facts.requester)
        return "the profile's folder does not belong to the user who asked";
    if ((folder.mode & kNoAccessForOthers) != 0)
        return "the profile's folder is open to other users (it must be mode 0700)";
    if (!file.regular)
        return "the profile is not a regular file";
    if (file.owner != facts.requester)
        return "the profile does not belong to the user who asked";
    if ((file.mode & kPermissionBits) != kPrivateFileMode)
        return "the profile is not private to its owner (it must be mode 0600)";
    if (file.links != 1)
        return "the profile has other hard links";
    return {};
}
} // namespace

std::string ProfileGuard::credentialsProblem(unsigned requester, const FileFacts &file)
{
    if (!file.regular)
        return "the credentials file is not a regular file";
    if (file.owner != requester)
        return "the credentials file does not belong to the user who asked";
    if ((file.mode & kNoAccessForOthers) != 0)
        return "the credentials file is open to other users";
    if (file.links != 1)
        return "the credentials file has other hard links";
    return {};
}

ProfileGuard::Verdict ProfileGuard::check(std::string_view profile, const Facts &facts, std::string_view handOverFolder)
{
    Verdict verdict;
    const auto refuse = [&verdict](std::string reason) {
        verdict = Verdict{};
        verdict.reason = std::move(reason);
        return verdict;
    };
    if (std::string problem = placeProblem(facts); !problem.empty())
        return refuse(problem);
    if (profile.size() > kMaxProfileBytes)
        return refuse("the profile is larger than " + std::to_string(kMaxProfileBytes) + " bytes");
    if (profile.find('\0') != std::string_view::npos)
        return refuse("the profile holds a NUL byte");

    std::string out;
    std::string openBlock; // the inline block being read, empty outside one
    std::size_t lineNumber = 0;
    while (!profile.empty()) {
        const std::size_t end = std::min(profile.find('\n'), profile.size());
        std::string_view line = profile.substr(0, end);
        profile.remove_prefix(std::min(end + 1, profile.size()));
        ++lineNumber;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);

        std::string_view trimmed = line;
        while (!trimmed.empty() && isSpace(trimmed.front()))
            trimmed.remove_prefix(1);
        while (!trimmed.empty() && isSpace(trimmed.back()))
            trimmed.remove_suffix(1);

        if (!openBlock.empty()) {
            if (trimmed == "</" + openBlock + ">") {
                out += std::string(trimmed) + "\n";
                openBlock.clear();
            } else if (trimmed.find_first_of("<>") != std::string_view::npos) {
                return refuse("a '<' or '>' inside the inline block " + printable(openBlock) + where(lineNumber));
            } else {
                out += std::string(trimmed) + "\n";
            }
            continue;
        }

        const auto words = split(line);
        if (!words)
            return refuse("an unclosed quote" + where(lineNumber));
        if (words->empty())
            continue;
        std::string name = words->front();
        if (name.rfind("--", 0) == 0)
            name.erase(0, 2); // openvpn takes "--name" in a file as "name"

        if (name.size() > 2 && name.front() == '<' && name.back() == '>') {
            const std::string tag = name.substr(1, name.size() - 2);
            if (words->size() != 1 || !isInlineBlock(tag))
                return refuse("the inline block " + printable(tag) + " is not allowed" + where(lineNumber));
            openBlock = tag;
            out += "<" + tag + ">\n";
            continue;
        }

        const Allowed *entry = allowed(name);
        if (!entry)
            return refuse("the directive " + printable(name) + " is not allowed in a VPN profile" + where(lineNumber));
        const std::size_t args = words->size() - 1;
        if (args < entry->minArgs || args > entry->maxArgs || args > kMaxArguments)
            return refuse("wrong number of arguments for " + printable(name) + where(lineNumber));
        for (const std::string &word : *words) {
            if (word.size() > kMaxArgumentBytes)
                return refuse("an argument longer than " + std::to_string(kMaxArgumentBytes) + " bytes" +
                              where(lineNumber));
            if (word.find_first_of("\"\\") != std::string::npos)
                return refuse("an argument holding a quote or a backslash" + where(lineNumber));
        }

        std::vector<std::string> handed(words->begin() + 1, words->end());
        if (name == "script-security" && std::find(std::begin(kSafeScriptLevels), std::end(kSafeScriptLevels),
                                                   handed.front()) == std::end(kSafeScriptLevels))
            return refuse("'script-security' above 1 would let the profile run programs" + where(lineNumber));
        if (name == "auth-user-pass" && !handed.empty()) {
            const auto credentials = credentialsNameIn(handed.front(), facts.folderPath);
            if (!credentials)
                return refuse("'auth-user-pass' names a file that is not beside the profile" + where(lineNumber));
            if (!verdict.credentialsName.empty() && verdict.credentialsName != *credentials)
                return refuse("'auth-user-pass' names two different files" + where(lineNumber));
            verdict.credentialsName = *credentials;
            handed.front() = std::string(handOverFolder) + "/" + *credentials;
        }
        out += name;
        for (const std::string &word : handed)
            out += " " + quoted(word);
        out += "\n";
    }
    if (!openBlock.empty())
        return refuse("the inline block " + printable(openBlock) + " is never closed");
    verdict.accepted = true;
    verdict.openVpnText = std::move(out);
    return verdict;
}
