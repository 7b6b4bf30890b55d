#pragma once

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
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
        return qEnvironmentVariable("PELORIN_BINARY_DIR") + "/tools/devbackend/pelorin-devbackend";
    }

    // Starts it with a fresh data folder (or `dataDir`) and `extra` arguments; false when it
    // did not announce its address within 10 s.
    bool start(const QStringList &extra = {}, const QString &dataDir = {})
    {
        m_process.setProgram(executable());
        m_process.setArguments(QStringList{"--port", "0", "--data-dir", dataDir.isEmpty() ? m_tmp.path() : dataDir} +
                               extra);
        // A test that dies (a sanitizer stop, a crash) must not leave its backend running.
        m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
        m_process.start();
        QByteArray seen;
        while (!seen.contains('\n') && m_process.waitForReadyRead(10000))
            seen += m_process.readAllStandardOutput();
        if (seen.startsWith("listening on http://"))
            m_base = QString::fromUtf8(seen.mid(13, seen.indexOf('\n') - 13));
        return !m_base.isEmpty();
    }
    ~DevBackendProcess()
    {
        m_process.terminate();
        m_process.waitForFinished(5000);
    }

    const QString &baseUrl() const { return m_base; }

    // A synchronous request to the backend: status and body (status 0 on a transport error).
    QPair<int, QByteArray> call(const QByteArray &method, const QString &path, const QByteArray &body = {})
    {
        QNetworkAccessManager session;
        QNetworkRequest request(QUrl(m_base + path));
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
        std::unique_ptr<QNetworkReply> reply(session.sendCustomRequest(request, method, body));
        QEventLoop loop;
        QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(10000, &loop, &QEventLoop::quit);
        loop.exec();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    }

    // Spoils answers under `prefix` (see tools/devbackend/README.md for the kinds).
    bool fault(const QString &prefix, const QString &kind, const QJsonValue &value = {}, int count = -1)
    {
        QJsonObject rule{{"path-prefix", prefix}, {"kind", kind}};
        if (!value.isNull())
            rule.insert("value", value);
        if (count > 0)
            rule.insert("count", count);
        return call("POST", "/control/fault", QJsonDocument(rule).toJson()).first == 200;
    }
    // Forgets faults and requests received.
    void reset()
    {
        call("DELETE", "/control/fault");
        call("DELETE", "/control/requests");
    }
    // Requests received so far, oldest first.
    QJsonArray requests() { return QJsonDocument::fromJson(call("GET", "/control/requests").second).array(); }

private:
    QTemporaryDir m_tmp;
    QProcess m_process;
    QString m_base;
};
