#pragma once

#include "AccountStore.h"
#include "DevBackendConfig.h"
#include "DevBackendData.h"
#include "FaultTable.h"

#include <QAbstractHttpServer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrlQuery>

class QTcpSocket;

// The backend REST API on one listening socket. Every request is logged as one line on
// standard output and recorded (GET /control/requests) so tests can see what the client sent.
class DevBackendServer : public QAbstractHttpServer {
public:
    // What a request was, as received.
    struct Incoming {
        QByteArray method;
        QString path;
        QUrlQuery query;
        QList<QPair<QByteArray, QByteArray>> headers;
        QByteArray body;
        QString remote;
    };
    // What we answer with.
    struct Answer {
        int status = 200;
        QByteArray type = "application/json";
        QByteArray body;
        QJsonDocument json; // the body as JSON where the answer is JSON (faults reshape it)
    };

    DevBackendServer(DevBackendConfig config, DevBackendData data, AccountStore accounts);

    // Replaces the served content (the data is loaded again once the port is known).
    void setData(DevBackendData data) { m_data = std::move(data); }

    // Our base URL, e.g. "http://127.0.0.1:8765", once listening.
    static QString baseUrl(const QHostAddress &address, quint16 port);

protected:
    bool handleRequest(const QHttpServerRequest &request, QTcpSocket *socket) override;
    void missingHandler(const QHttpServerRequest &request, QTcpSocket *socket) override;

private:
    Answer route(const Incoming &in);
    Answer control(const Incoming &in);
    Answer labelSettings(const QStringList &segments);
    Answer extensionDownload(const QStringList &segments);
    Answer installStats(const Incoming &in);
    Answer createAccount(const QStringList &segments, const Incoming &in);
    Answer serverList(const QStringList &segments, const Incoming &in);
    Answer serverProfile(const QStringList &segments, const Incoming &in);
    Answer ipToCountry(const Incoming &in);
    Answer updateFile(const QString &path);
    Answer verify(const Incoming &in);

    static Answer json(const QJsonDocument &document, int status = 200);
    static Answer error(int status, const QString &message);
    static Answer faulted(Answer answer, const FaultTable::Rule &rule);
    void send(QTcpSocket *socket, const Answer &answer);
    void record(const Incoming &in, int status, const QString &note);

    DevBackendConfig m_config;
    DevBackendData m_data;
    AccountStore m_accounts;
    FaultTable m_faults;
    QJsonArray m_requests;
};
