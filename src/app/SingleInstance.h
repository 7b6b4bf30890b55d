#pragma once

#include <QObject>
#include <QString>

class QLocalServer;

// One windowed instance per user: the first listens on a local socket in the user's runtime
// folder; a later launch finds it there, asks it to show its window and leaves.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    // Asks for the running instance's window within this time.
    static constexpr int kAskTimeoutMs = 2000;
    static constexpr auto kSocketName = "PelorinVPN.instance";

    // The socket path in `folder` (empty: the user's runtime folder).
    explicit SingleInstance(const QString &folder = {}, QObject *parent = nullptr);
    ~SingleInstance() override;

    // True when another instance runs and took the request to show itself.
    bool askRunningInstanceToShow();
    // Starts listening; false when the socket cannot be made (the program still runs).
    bool listen();
    const QString &socketPath() const { return m_path; }

signals:
    void showRequested();

private:
    QString m_path;
    QLocalServer *m_server = nullptr;
};
