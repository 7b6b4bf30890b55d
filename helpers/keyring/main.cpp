// pelorin-keyring: answers one Secret Service request and exits. The request arrives on standard
// input and the answer leaves on standard output (foundation/KeyringMessage.h); nothing is
// printed elsewhere, so no secret reaches a log. Exit code 0 when an answer was written, 2 when
// the request could not be read, 1 when the answer could not be written.
#include "LibsecretBackend.h"

#include "foundation/KeyringMessage.h"

#include <QString>

#include <cerrno>
#include <unistd.h>

namespace {

using KeyringMessage::Operation;

constexpr int kExitUnreadableRequest = 2;
constexpr int kExitUnwritableAnswer = 1;

// All of standard input, or nullopt past the largest message (the peer is not ours).
std::optional<QByteArray> readRequest()
{
    QByteArray bytes;
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
        bytes.append(chunk, got);
        if (bytes.size() > KeyringMessage::kMaxMessageBytes)
            return std::nullopt;
    }
}

bool writeAll(const QByteArray &bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::write(STDOUT_FILENO, bytes.constData() + done, size_t(bytes.size() - done));
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return false;
        done += wrote;
    }
    return true;
}

KeyringMessage::Answer toAnswer(const SecretBackend::Result &result)
{
    return {result.status, result.message.toUtf8(), result.data};
}

KeyringMessage::Answer answerFor(const KeyringMessage::Request &request)
{
    QString reason;
    const std::unique_ptr<LibsecretBackend> backend = LibsecretBackend::connect(&reason);
    if (!backend)
        return {SecretBackend::NotAvailable, reason.toUtf8(), {}};
    const QString service = QString::fromUtf8(request.service);
    const QString account = QString::fromUtf8(request.account);
    switch (request.operation) {
    case Operation::Ping:
        return {};
    case Operation::Find:
        return toAnswer(backend->find(service, account));
    case Operation::Update:
        return toAnswer(backend->update(service, account, request.secret));
    case Operation::Add:
        return toAnswer(backend->add(service, account, request.secret));
    case Operation::Remove:
        return toAnswer(backend->remove(service, account));
    }
    return {SecretBackend::InternalComponent, "Unknown keyring operation.", {}};
}

} // namespace

int main()
{
    const std::optional<QByteArray> bytes = readRequest();
    const std::optional<KeyringMessage::Request> request = bytes ? KeyringMessage::decodeRequest(*bytes) : std::nullopt;
    if (!request) {
        const KeyringMessage::Answer refused{
            SecretBackend::InternalComponent, "The keyring helper could not read its request.", {}};
        writeAll(KeyringMessage::encode(refused).value_or(QByteArray()));
        return kExitUnreadableRequest;
    }
    const std::optional<QByteArray> answer = KeyringMessage::encode(answerFor(*request));
    if (!answer || !writeAll(*answer))
        return kExitUnwritableAnswer;
    return 0;
}
