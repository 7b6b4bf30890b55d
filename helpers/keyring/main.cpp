// pelorin-keyring: answers Secret Service requests. The requests arrive on standard input and
// each is answered on standard output as soon as it has been read, in order
// (foundation/KeyringMessage.h), so the program can keep one helper for a few requests in a row.
// Nothing is printed elsewhere, so no secret reaches a log. A request that cannot be read is
// answered with a refusal and ends the run. The helper exits when its input closes, or when no
// request came for kIdleExitMs (a program that stopped using it without closing it). Exit code
// 0 when every request was answered, 2 when one could not be read, 1 when an answer could not
// be written, KeyringMessage::kHelperIdleExitCode when it left idle (nothing was read since
// its last answer).
//
// No Qt here: the program starts this helper for each user action, so it must start fast.
#include "LibsecretBackend.h"

#include "foundation/KeyringMessage.h"
#include "foundation/SecretStatus.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace {

using KeyringMessage::Answer;
using KeyringMessage::Operation;

constexpr int kExitUnreadableRequest = 2;
constexpr int kExitUnwritableAnswer = 1;
// Well past the program's own keep-alive, so it is the program that normally ends a session.
constexpr int kIdleExitMs = 60000;

enum class Input { Bytes, Closed, Idle, Failed };

// Appends what standard input has now to `bytes`, waiting at most kIdleExitMs for it.
Input readSome(std::string &bytes)
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    for (;;) {
        const int ready = ::poll(&input, 1, kIdleExitMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return Input::Failed;
        if (ready == 0)
            return Input::Idle;
        char chunk[16 * 1024];
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return Input::Failed;
        if (got == 0)
            return Input::Closed;
        bytes.append(chunk, size_t(got));
        return Input::Bytes;
    }
}

bool writeAll(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t wrote = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return false;
        bytes.remove_prefix(size_t(wrote));
    }
    return true;
}

// One Secret Service connection serves all requests of the run; made on first use.
class Session {
public:
    Answer answer(const KeyringMessage::Request &request)
    {
        if (!m_backend && m_failure.empty())
            m_backend = LibsecretBackend::connect(&m_failure);
        if (!m_backend)
            return {SecretStatus::NotAvailable, m_failure, {}};
        switch (request.operation) {
        case Operation::Ping:
            return {};
        case Operation::Find:
            return m_backend->find(request.service, request.account);
        case Operation::Update:
            return m_backend->update(request.service, request.account, request.secret);
        case Operation::Add:
            return m_backend->add(request.service, request.account, request.secret);
        case Operation::AddLabelled:
            return m_backend->add(request.service, request.account, request.secret, request.label);
        case Operation::Remove:
            return m_backend->remove(request.service, request.account);
        }
        return {SecretStatus::InternalComponent, "Unknown keyring operation.", {}};
    }

private:
    std::unique_ptr<LibsecretBackend> m_backend;
    std::string m_failure;
};

bool refuse()
{
    const Answer refused{SecretStatus::InternalComponent, "The keyring helper could not read its request.", {}};
    return writeAll(KeyringMessage::encode(refused).value_or(std::string()));
}

} // namespace

int main()
{
    std::string bytes;
    Session session;
    bool answeredAny = false;
    for (;;) {
        std::string_view rest = bytes;
        bool incomplete = true;
        while (std::optional<KeyringMessage::Request> request = KeyringMessage::takeRequest(rest, &incomplete)) {
            const std::optional<std::string> answer = KeyringMessage::encode(session.answer(*request));
            if (!answer || !writeAll(*answer))
                return kExitUnwritableAnswer;
            answeredAny = true;
        }
        bytes.erase(0, bytes.size() - rest.size());
        if (!incomplete) {
            refuse();
            return kExitUnreadableRequest;
        }
        switch (readSome(bytes)) {
        case Input::Bytes:
            continue;
        case Input::Idle:
            if (bytes.empty())
                return KeyringMessage::kHelperIdleExitCode;
            [[fallthrough]]; // a request stuck half-sent is not coming
        case Input::Failed:
            refuse();
            return kExitUnreadableRequest;
        case Input::Closed:
            // An empty input is one unreadable request, not zero; so is a cut-off one.
            if (bytes.empty() && answeredAny)
                return 0;
            refuse();
            return kExitUnreadableRequest;
        }
    }
}
