#pragma once

#include <QDir>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <csignal>
#include <sys/prctl.h>

// A real pelorin-devbackend on a free loopback port, for component tests. Control calls
// (faults, received requests) are made synchronously on a session of their own.
class DevBackendProcess {
public:
    static QString executable()
    {
        return qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/tools/devbackend/pelorin-devbackend");
    }

    // Starts it with a fresh data folder (or `dataDir`) and `extra` arguments; false when it
    // did not announce its address within 10 s.
    bool start(const QStringList &extra = {}, const QString &dataDir = {})
    {
        m_dataDir = dataDir.isEmpty() ? m_tmp.path() : dataDir;
        m_process.setProgram(executable());
        m_process.setArguments(
            QStringList{QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--data-dir"), m_dataDir} +
            extra);
        m_process.setProcessChannelMode(QProcess::SeparateChannels);
        // A test that dies (a sanitizer stop, a crash) must not leave its backend running.
        m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
        m_process.start();
        if (!m_process.waitForStarted(5000))
            return false;
        static const QRegularExpression announced(QStringLiteral("^listening on (http://\\S+)$"));
        QByteArray seen;
        while (m_base.isEmpty() && m_process.waitForReadyRead(10000)) {
            seen += m_process.readAllStandardOutput();
            for (const QByteArray &line : seen.split('\n'))
                if (const auto match = announced.match(QString::fromUtf8(line)); match.hasMatch())
                    m_base = match.captured(1);
        }
        return !m_base.isEmpty();
    }

    void stop()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.terminate();
            if (!m_process.waitForFinished(5000))
                m_process.kill();
            m_process.waitForFinished(2000);
        }
        m_base.clear();
    }
    ~DevBackendProcess() { stop(); }

    const QString &baseUrl() const { return m_base; }
    const QString &dataDir() const { return m_dataDir; }

    // A synchronous request to the backend: status and body (status 0 on a transport error).
    QPair<int, QByteArray> call(const QByteArray &method, const QString &path, const QByteArray &body = {})
    {
        QNetworkAccessManager session;
        QNetworkRequest request(QUrl(m_base + path));
        if (!body.isEmpty())
            request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
        QNetworkReply *reply = session.sendCustomRequest(request, method, body);
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(10000, &loop, &QEventLoop::quit);
        loop.exec();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const QByteArray answer = reply->readAll();
        delete reply;
        return {status, answer};
    }

    // Spoils answers under `prefix` (see tools/devbackend/README.md for the kinds).
    bool fault(const QString &prefix, const QString &kind, const QJsonValue &value = {}, int count = -1)
    {
        QJsonObject rule{{QStringLiteral("path-prefix"), prefix}, {QStringLiteral("kind"), kind}};
        if (!value.isNull() && !value.isUndefined())
            rule.insert(QStringLiteral("value"), value);
        if (count > 0)
            rule.insert(QStringLiteral("count"), count);
        return call("POST", QStringLiteral("/control/fault"), QJsonDocument(rule).toJson()).first == 200;
    }
    // Requests received so far, oldest first.
    QJsonArray requests()
    {
        return QJsonDocument::fromJson(call("GET", QStringLiteral("/control/requests")).second).array();
    }
    void clearRequests() { call("DELETE", QStringLiteral("/control/requests")); }

private:
    QTemporaryDir m_tmp;
    QString m_dataDir;
    QProcess m_process;
    QString m_base;
};
