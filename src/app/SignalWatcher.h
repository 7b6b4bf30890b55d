#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a Qt signal on the main thread (self-pipe: the handler only
// writes one byte).
class SignalWatcher : public QObject {
    Q_OBJECT
public:
    explicit SignalWatcher(QObject *parent = nullptr);
    ~SignalWatcher() override;

signals:
    void terminationRequested(int signalNumber);

private:
    QSocketNotifier *m_notifier = nullptr;
};
