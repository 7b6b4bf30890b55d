#include "DevBackendServer.h"

#include <QDateTime>
#include <QHttpServerRequest>
#include <QJsonObject>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

#include <cstdio>

namespace {

// Requests kept for GET /control/requests; older ones are dropped first.
constexpr qsizetype kMaxRecordedRequests = 500;

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

QByteArray methodName(QHttpServerRequest::Method method)
{
    switch (method) {
    case QHttpServerRequest::Method::Get:
        return "GET";
    case QHttpServerRequest::Method::Post:
        return "POST";
    case QHttpServerRequest::Method::Put:
        return "PUT";
    case QHttpServerRequest::Method::Delete:
        return "DELETE";
    case QHttpServerRequest::Method::Head:
        return "HEAD";
    case QHttpServerRequest::Method::Options:
        return "OPTIONS";
    case QHttpServerRequest::Method::Patch:
        return "PATCH";
    default:
        return "OTHER";
    }
}

QStringList keysToTouch(const QString &value, const QJsonObject &object)
{
    return value.isEmpty() ? object.keys() : value.split(QLatin1Char(','), Qt::SkipEmptyParts);
}

} // namespace

DevBackendServer::DevBackendServer(DevBackendConfig config, DevBackendData data, AccountStore accounts)
    : m_config(std::move(config)), m_data(std::move(data)), m_accounts(std::move(accounts))
{
    for (const auto &rule : std::as_const(m_config.faults))
        m_faults.add(rule);
}

QString DevBackendServer::baseUrl(const QHostAddress &address, quint16 port)
{
    const QString host = address.protocol() == QAbstractSocket::IPv6Protocol
                             ? QStringLiteral("[%1]").arg(address.toString())
                             : address.toString();
    return QStringLiteral("http://%1:%2").arg(host).arg(port);
}

bool DevBackendServer::handleRequest(const QHttpServerRequest &request, QTcpSocket *socket)
{
    Incoming in{methodName(request.method()),
                request.url().path(QUrl::FullyEncoded),
                request.query(),
                request.headers(),
                request.body(),
                request.remoteAddress().toString()};
    const bool exempt =
        in.path.startsWith(QLatin1String("/control/")) || in.path.startsWith(QLatin1String("/internal/"));
    const auto rule = exempt ? std::nullopt : m_faults.take(in.path);
    Answer answer = route(in);
    if (!rule) {
        record(in, answer.status, {});
        send(socket, answer);
        return true;
    }
    const QString note = FaultTable::kindName(rule->kind) + (rule->value.isEmpty() ? QString() : ':' + rule->value);
    if (rule->kind == FaultTable::Kind::Close) {
        record(in, 0, note);
        socket->disconnectFromHost();
        return true;
    }
    answer = faulted(answer, *rule);
    record(in, answer.status, note);
    if (rule->kind == FaultTable::Kind::Delay) {
        QPointer<QTcpSocket> target(socket);
        QTimer::singleShot(rule->value.toInt(), this, [this, target, answer] {
            if (target)
                send(target, answer);
        });
        return true;
    }
    send(socket, answer);
    return true;
}

void DevBackendServer::missingHandler(const QHttpServerRequest &request, QTcpSocket *socket)
{
    send(socket, error(404, QStringLiteral("no such endpoint")));
}

DevBackendServer::Answer DevBackendServer::faulted(Answer answer, const FaultTable::Rule &rule)
{
    switch (rule.kind) {
    case FaultTable::Kind::Status:
        return {rule.value.toInt(),
                "text/html",
                "<html><head><title>Error</title></head><body><h1>" + rule.value.toUtf8() + "</h1></body></html>",
                {}};
    case FaultTable::Kind::NonJson:
        return {200, "text/html", "<html><body>Service temporarily unavailable</body></html>", {}};
    case FaultTable::Kind::Body:
        return {200, "application/json", rule.value.toUtf8(), {}};
    case FaultTable::Kind::WrongShape:
        return answer.json.isArray() ? json(QJsonDocument(QJsonObject())) : json(QJsonDocument(QJsonArray()));
    case FaultTable::Kind::MissingKeys:
    case FaultTable::Kind::Nulls: {
        if (!answer.json.isObject())
            return answer;
        QJsonObject object = answer.json.object();
        for (const QString &key : keysToTouch(rule.value, object)) {
            if (rule.kind == FaultTable::Kind::MissingKeys)
                object.remove(key);
            else
                object.insert(key, QJsonValue::Null);
        }
        return json(QJsonDocument(object), answer.status);
    }
    case FaultTable::Kind::Delay:
    case FaultTable::Kind::Close:
        break;
    }
    return answer;
}

void DevBackendServer::send(QTcpSocket *socket, const Answer &answer)
{
    // Written by hand so that a late (delayed) answer needs nothing but the socket.
    QByteArray head = "HTTP/1.1 " + QByteArray::number(answer.status) + ' ' + reasonPhrase(answer.status) + "\r\n";
    head += "Content-Type: " + answer.type + "\r\n";
    head += "Content-Length: " + QByteArray::number(answer.body.size()) + "\r\n\r\n";
    socket->write(head + answer.body);
}

void DevBackendServer::record(const Incoming &in, int status, const QString &note)
{
    const QString target = in.query.isEmpty() ? in.path : in.path + '?' + in.query.toString(QUrl::FullyEncoded);
    std::printf("%s %s %s %s -> %s%s\n", qPrintable(QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)),
                qPrintable(in.remote), in.method.constData(), qPrintable(target),
                status ? qPrintable(QString::number(status)) : "closed",
                note.isEmpty() ? "" : qPrintable(QStringLiteral(" [fault %1]").arg(note)));
    std::fflush(stdout);
    if (in.path.startsWith(QLatin1String("/control/")))
        return;
    QJsonObject headers;
    for (const auto &[name, value] : in.headers)
        headers.insert(QString::fromLatin1(name).toLower(), QString::fromUtf8(value));
    m_requests.append(QJsonObject{{QStringLiteral("method"), QString::fromLatin1(in.method)},
                                  {QStringLiteral("path"), in.path},
                                  {QStringLiteral("query"), in.query.toString(QUrl::FullyEncoded)},
                                  {QStringLiteral("headers"), headers},
                                  {QStringLiteral("body"), QString::fromUtf8(in.body)},
                                  {QStringLiteral("status"), status},
                                  {QStringLiteral("fault"), note}});
    while (m_requests.size() > kMaxRecordedRequests)
        m_requests.removeFirst();
}

DevBackendServer::Answer DevBackendServer::json(const QJsonDocument &document, int status)
{
    return {status, "application/json", document.toJson(QJsonDocument::Compact), document};
}

DevBackendServer::Answer DevBackendServer::error(int status, const QString &message)
{
    return json(QJsonDocument(QJsonObject{{QStringLiteral("error"), message}}), status);
}
