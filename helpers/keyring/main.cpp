// pelorin-keyring: answers Secret Service requests and exits. The requests arrive on standard
// input until it closes, their answers leave on standard output in the same order
// (foundation/KeyringMessage.h); nothing is printed elsewhere, so no secret reaches a log.
// A request that cannot be read is answered with a refusal and ends the run: the ones before
// it are answered, nothing after it is read. Exit code 0 when every request was answered, 2
// when one could not be read, 1 when an answer could not be written.
//
// No Qt here: the program starts this helper for each user action, so it must start fast.
#include "LibsecretBackend.h"

#include "foundation/KeyringMessage.h"
#include "foundation/SecretStatus.h"

#include <cerrno>
#include <unistd.h>

namespace {

using KeyringMessage::Answer;
using KeyringMessage::Operation;

constexpr int kExitUnreadableRequest = 2;
constexpr int kExitUnwritableAnswer = 1;

// All of standard input, or nullopt past the longest stream (the peer is not ours).
std::optional<std::string> readRequests()
{
    std::string bytes;
    char chunk[16 * 1024];
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got == 0)
            return bytes;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        bytes.append(chunk, size_t(got));
        if (bytes.size() > KeyringMessage::kMaxStreamBytes)
            return std::nullopt;
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
    const std::optional<std::string> bytes = readRequests();
    if (!bytes) {
        refuse();
        return kExitUnreadableRequest;
    }
    std::string_view rest = *bytes;
    Session session;
    std::size_t answered = 0;
    // An empty input is one unreadable request, not zero.
    do {
        const std::optional<KeyringMessage::Request> request = KeyringMessage::takeRequest(rest);
        if (!request || answered == KeyringMessage::kMaxRequestsPerRun) {
            refuse();
            return kExitUnreadableRequest;
        }
        const std::optional<std::string> answer = KeyringMessage::encode(session.answer(*request));
        if (!answer || !writeAll(*answer))
            return kExitUnwritableAnswer;
        ++answered;
    } while (!rest.empty());
    return 0;
}
