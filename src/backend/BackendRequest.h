#pragma once

#include "foundation/NQError.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QList>
#include <QPair>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <optional>

class QNetworkAccessManager;

// One backend call: builds the request, sends it on the shared session, logs the request's
// lines and hands the outcome to exactly one completion, always on the main thread.
//
// Any HTTP status counts as an answer (an error page is still a body); only failures below
// HTTP (refused, timed out, lost connection, ...) are transport errors, reported in the
// "NSURLErrorDomain" as URLSessionError describes.
class BackendRequest {
public:
    // The log lines of one request. "%1" is the URL (endpoint), the error's debug description
    // (failure) or the body text (finish); "%2" on the endpoint line is the body dictionary.
    // An empty template is not logged.
    struct LogLines {
        QString start;
        QString endpoint;
        QString failure;
        QString success;
        QString deserialized;
        QString deserializeError; // message of the error for a body that is not JSON
        QString serializeError;   // message of the error for a request body that cannot be sent
        QString finish;

        // The usual set for a request called `name`:
        //   "Request <name>", "Request <name>. endpointUrl = '%1'", "Request <name>. failed = '%1'",
        //   "Request <name>. request success", "... request success. response body deserialized",
        //   "Deserialize response body failed for request '<name>'.",
        //   "Cannot serialze request body for request '<name>'.",
        //   "Request <name>. request finish. response body = %1".
        static LogLines named(const QString &name);
    };

    enum class CachePolicy { UseProtocolCachePolicy, ReloadIgnoringLocalCacheData };

    struct Options {
        LogLines log;
        QString url;
        QByteArray method = "GET";
        QList<QPair<QByteArray, QByteArray>> headers;
        std::optional<QVariantMap> jsonBody; // sent compact; its description goes on the endpoint line
        CachePolicy cachePolicy = CachePolicy::UseProtocolCachePolicy;
        double timeoutSeconds = 0; // 0: NQConfig appHttpDefaultTimeout
    };

    struct Result {
        // The transport error, the body serialisation error, or the deserialisation error
        // (domain "com.pelorin.vpn.mac.identity.error", code -1, the deserializeError message,
        // the parser's error under "NSUnderlyingError"); empty on success.
        NQErrorOpt error;
        bool transportFailed = false; // no answer at all (error is the transport error)
        bool parsed = false;          // json holds the parsed body
        QByteArray body;              // the raw body; empty after a transport failure
        int httpStatus = 0;           // 0 when there was no HTTP answer
        QJsonDocument json;
        QJsonParseError parseError{};
    };
    using Completion = std::function<void(const Result &)>;

    // Starts the request. Safe from any thread; the completion runs once on the main thread.
    static void send(Options options, Completion completion);

    // The outcome of an HTTP answer with `body`: the parsed JSON, or the deserialisation
    // error carrying `deserializeError` as its message. Pure: no logging, no network.
    static Result resultForBody(const QByteArray &body, const QString &deserializeError);

    // The session every backend request shares; lives on the main thread. Main thread only.
    static QNetworkAccessManager &sharedSession();

    // "Error Domain=NSCocoaErrorDomain Code=3840 ..." for a body the JSON parser refused.
    static NQError jsonParseError(const QJsonParseError &parseError);
    // An error of this client: "com.pelorin.vpn.mac.identity.error", the code, the message.
    static NQError identityError(int code, const QString &message);
    // The body as logged on the finish line: its UTF-8 text, "(null)" where there is none or
    // it is not UTF-8.
    static QString bodyDescription(const QByteArray &body, bool hasBody);
    // A dictionary in the platform's description layout ({\n    key = value;\n}), keys sorted.
    static QString dictionaryDescription(const QVariantMap &map);
    // The compact JSON text of `body`, or nothing when a value has no JSON form (a null
    // string, an invalid or non-finite value).
    static std::optional<QByteArray> serializeJson(const QVariantMap &body);
};
