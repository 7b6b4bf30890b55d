#include "ProfileHandOver.h"

#include "ProfileGuard.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <csignal>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr const char *kCopyName = "profile.ovpn";
// Copy folders are named after the ovpncli that made them: "pelorin-ovpncli.<pid>.XXXXXX".
constexpr std::string_view kCopyPrefix = "pelorin-ovpncli.";
constexpr mode_t kCopyMode = 0600;

class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

ProfileGuard::FileFacts factsOf(const struct stat &st)
{
    return {static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode & 07777),
            static_cast<unsigned>(st.st_nlink), S_ISREG(st.st_mode), S_ISDIR(st.st_mode)};
}

// Up to `limit` + 1 bytes, so the caller can tell a file that is too large.
std::optional<std::string> readAll(int fd, std::size_t limit)
{
    std::string data;
    char buffer[8192];
    while (data.size() <= limit) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            break;
        data.append(buffer, static_cast<std::size_t>(n));
    }
    return data;
}

bool writeNew(int folder, const std::string &name, const std::string &data)
{
    const int fd = openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kCopyMode);
    if (fd < 0)
        return false;
    Fd file(fd);
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Opens `name` in `folder` without following a link; ELOOP names the link case.
std::string openProblem(const char *what)
{
    if (errno == ELOOP)
        return std::string(what) + " is a symbolic link";
    return std::string("cannot open ") + what + ": " + std::strerror(errno);
}

// A helper that was SIGKILLed never removed its copies (the credentials among them). Whoever
// starts next removes the folders of helpers that are gone, but only in a parent no other user
// can write to, and only folders we own, entry by entry without following links.
void sweepAbandonedCopies(const char *parent)
{
    const int parentFd = open(parent, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (parentFd < 0)
        return;
    struct stat st {};
    DIR *entries =
        (fstat(parentFd, &st) == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) ? fdopendir(parentFd) : nullptr;
    if (!entries) {
        close(parentFd);
        return;
    }
    while (const dirent *entry = readdir(entries)) {
        const std::string_view name = entry->d_name;
        if (name.substr(0, kCopyPrefix.size()) != kCopyPrefix)
            continue;
        const std::string pidText(
            name.substr(kCopyPrefix.size(), name.find('.', kCopyPrefix.size()) - kCopyPrefix.size()));
        char *end = nullptr;
        const long pid = std::strtol(pidText.c_str(), &end, 10);
        if (pidText.empty() || *end != '\0' || pid <= 0 || kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH)
            continue;
        if (fstatat(parentFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) ||
            st.st_uid != geteuid())
            continue;
        const int folderFd = openat(parentFd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (folderFd < 0)
            continue;
        if (DIR *copies = fdopendir(folderFd)) {
            while (const dirent *copy = readdir(copies))
                if (std::string_view(copy->d_name) != "." && std::string_view(copy->d_name) != "..")
                    unlinkat(folderFd, copy->d_name, 0);
            closedir(copies);
        } else {
            close(folderFd);
        }
        unlinkat(parentFd, entry->d_name, AT_REMOVEDIR);
    }
    closedir(entries);
}
} // namespace

ProfileHandOver::ProfileHandOver(const std::string &profilePath)
{
    m_accepted = admit(profilePath);
}

ProfileHandOver::~ProfileHandOver()
{
    for (const std::string &copy : m_copies)
        unlink(copy.c_str());
    if (!m_copyFolder.empty())
        rmdir(m_copyFolder.c_str());
}

bool ProfileHandOver::refuse(std::string reason)
{
    m_reason = std::move(reason);
    return false;
}

std::vector<std::string> ProfileHandOver::command(const std::string &openvpn) const
{
    // After --config, so it wins over anything the profile says.
    return {openvpn, "--config", m_copyFolder + "/" + kCopyName, "--script-security", "1"};
}

bool ProfileHandOver::admit(const std::string &profilePath)
{
    unsigned requester = getuid();
    if (const char *sudoUid = std::getenv("SUDO_UID"); sudoUid && getuid() == 0) {
        char *end = nullptr;
        errno = 0;
        const unsigned long value = std::strtoul(sudoUid, &end, 10);
        if (errno != 0 || end == sudoUid || *end != '\0' || *sudoUid == '-' || value > 0xFFFFFFFEUL)
            return refuse("SUDO_UID does not name a user");
        requester = static_cast<unsigned>(value);
    }

    const std::size_t slash = profilePath.rfind('/');
    if (profilePath.empty() || profilePath.front() != '/' || slash == profilePath.size() - 1)
        return refuse("the profile path is not an absolute file path");
    ProfileGuard::Facts facts;
    facts.requester = requester;
    facts.folderPath = profilePath.substr(0, slash);
    const std::string name = profilePath.substr(slash + 1);

    Fd folder(open(facts.folderPath.empty() ? "/" : facts.folderPath.c_str(),
                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder.get() < 0)
        return refuse(openProblem("the profile's folder"));
    struct stat st {};
    if (fstat(folder.get(), &st) != 0)
        return refuse(openProblem("the profile's folder"));
    facts.folder = factsOf(st);

    // Non-blocking: a FIFO in place of the profile must not hang us.
    Fd file(openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0)
        return refuse(openProblem("the profile"));
    if (fstat(file.get(), &st) != 0)
        return refuse(openProblem("the profile"));
    facts.file = factsOf(st);

    std::string text;
    if (facts.file.regular) { // anything else is refused below without reading it
        const auto read = readAll(file.get(), ProfileGuard::kMaxProfileBytes);
        if (!read)
            return refuse(openProblem("the profile"));
        text = *read;
    }
    // Checked once to learn the verdict before anything is written, then again for the text
    // that names the copy folder.
    ProfileGuard::Verdict verdict = ProfileGuard::check(text, facts, "/");
    if (!verdict.accepted)
        return refuse(verdict.reason);

    std::string credentials;
    if (!verdict.credentialsName.empty()) {
        Fd source(openat(folder.get(), verdict.credentialsName.c_str(),
                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (source.get() < 0)
            return refuse(openProblem("the credentials file"));
        if (fstat(source.get(), &st) != 0)
            return refuse(openProblem("the credentials file"));
        if (std::string problem = ProfileGuard::credentialsProblem(requester, factsOf(st)); !problem.empty())
            return refuse(problem);
        const auto read = readAll(source.get(), kMaxCredentialsBytes);
        if (!read)
            return refuse(openProblem("the credentials file"));
        if (read->size() > kMaxCredentialsBytes)
            return refuse("the credentials file is too large");
        credentials = *read;
    }

    for (const char *parent : kCopyParents) {
        sweepAbandonedCopies(parent);
        std::string pattern =
            std::string(parent) + "/" + std::string(kCopyPrefix) + std::to_string(getpid()) + ".XXXXXX";
        if (mkdtemp(pattern.data())) { // mode 0700, owned by us
            m_copyFolder = pattern;
            break;
        }
    }
    if (m_copyFolder.empty())
        return refuse(std::string("cannot make a private folder for openvpn: ") + std::strerror(errno));
    verdict = ProfileGuard::check(text, facts, m_copyFolder);
    Fd copies(open(m_copyFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    m_copies.push_back(m_copyFolder + "/" + kCopyName);
    if (copies.get() < 0 || !writeNew(copies.get(), kCopyName, verdict.openVpnText))
        return refuse(std::string("cannot write openvpn's copy of the profile: ") + std::strerror(errno));
    if (!verdict.credentialsName.empty()) {
        m_copies.push_back(m_copyFolder + "/" + verdict.credentialsName);
        if (!writeNew(copies.get(), verdict.credentialsName, credentials))
            return refuse(std::string("cannot write openvpn's copy of the credentials: ") + std::strerror(errno));
    }
    m_checkedText = std::move(verdict.openVpnText);
    return true;
}
