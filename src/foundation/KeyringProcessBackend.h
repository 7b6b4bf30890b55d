#pragma once

#include "foundation/KeyringMessage.h"
#include "foundation/SecretBackend.h"
#include "foundation/WorkerThread.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class QProcess;
class QTimer;

// The Secret Service reached through the keyring helper (pelorin-keyring). One helper serves the
// requests of a user action: it is started on the first request, answers each as it arrives, and
// is ended kKeepAlive after the last one, so start-up's reads, or a connect's, cost one helper
// start and one Secret Service session. libsecret and GIO live only in the helper, so they never
// stay mapped here.
//
// The helper process lives on a thread of its own; every call may come from any thread and
// waits for its answer there. Callers that must not wait (the window's thread) go through the
// settings store's completions, which run these calls off that thread.
//
// Failures of the helper itself are the store's failures: a missing helper is NotAvailable
// (naming the file), one that crashes, hangs past the time-out or answers garbage is
// InternalComponent (and is ended; the next call starts a new one).
class KeyringProcessBackend : public SecretBackend {
public:
    // A request may wait for a person answering the Secret Service's unlock prompt.
    static constexpr std::chrono::milliseconds kDefaultTimeout{300000};
    static constexpr std::chrono::milliseconds kKeepAlive{10000};
    // How long a helper told to end (its input closed) may take before it is killed.
    static constexpr int kStopWaitMs = 2000;

    explicit KeyringProcessBackend(QString helperPath, std::chrono::milliseconds timeout = kDefaultTimeout,
                                   std::chrono::milliseconds keepAlive = kKeepAlive);
    ~KeyringProcessBackend() override;
    KeyringProcessBackend(const KeyringProcessBackend &) = delete;
    KeyringProcessBackend &operator=(const KeyringProcessBackend &) = delete;

    // Success when a Secret Service answers on the session bus.
    Result ping();
    Result find(const QString &service, const QString &account) override;
    Result update(const QString &service, const QString &account, const QByteArray &data) override;
    Result add(const QString &service, const QString &account, const QByteArray &data) override;
    Result addLabelled(const QString &service, const QString &account, const QByteArray &data,
                       const QString &label) override;
    Result remove(const QString &service, const QString &account) override;
    std::vector<Result> findAll(const QString &service, const QStringList &accounts) override;
    QString name() const override { return QStringLiteral("secret-service"); }

    const QString &helperPath() const { return m_helperPath; }
    // Helper processes started so far.
    int helperStarts() const { return m_starts; }

private:
    Result run(KeyringMessage::Operation operation, const QString &service, const QString &account,
               const QByteArray &data);
    // As many results as requests, all failures when the helper fails. Any thread.
    std::vector<Result> runAll(const std::vector<KeyringMessage::Request> &requests);
    // The same on the helper's thread.
    std::vector<Result> exchange(const std::string &stream, size_t count);
    enum class Outcome { Answered, LeftIdle, Failed };
    Outcome exchangeOnce(const std::string &stream, size_t count, std::vector<Result> *results);
    bool startHelper(QString *failure);
    void stopHelper();
    // Fails the helper's session: ends it and says why for every request.
    Outcome fail(size_t count, int status, const QString &message, std::vector<Result> *results);

    QString m_helperPath;
    std::chrono::milliseconds m_timeout;
    std::chrono::milliseconds m_keepAlive;
    std::once_flag m_threadStarted;
    std::unique_ptr<WorkerThread> m_worker;
    // Only touched on m_worker's thread:
    std::unique_ptr<QProcess> m_process;
    std::unique_ptr<QTimer> m_idle;
    std::string m_pending; // answer bytes read but not yet taken
    std::atomic<int> m_starts{0};
};
