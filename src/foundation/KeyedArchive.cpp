#include "foundation/KeyedArchive.h"

#include <QCborMap>
#include <QCborParserError>

namespace KeyedArchive {

namespace {
const QString kFormatKey = QStringLiteral("format");
const QString kVersionKey = QStringLiteral("version");
const QString kRootKey = QStringLiteral("root");
} // namespace

QByteArray wrapRoot(const QCborValue &root)
{
    QCborMap envelope;
    envelope.insert(kFormatKey, QString::fromLatin1(kFormatMarker));
    envelope.insert(kVersionKey, kFormatVersion);
    envelope.insert(kRootKey, root);
    return QCborValue(envelope).toCbor();
}

std::optional<QCborValue> unwrapRoot(const QByteArray &data, NQErrorOpt *error)
{
    auto fail = [error](const QString &reason) -> std::optional<QCborValue> {
        setError(error, KeyedUnarchiver::corruptError(reason));
        return std::nullopt;
    };
    // Checked before parsing, so an oversized value costs nothing.
    if (data.size() > kMaxArchiveBytes)
        return fail(
            QStringLiteral("archive of %1 bytes exceeds the limit of %2").arg(data.size()).arg(kMaxArchiveBytes));
    if (data.isEmpty())
        return fail(QStringLiteral("empty data"));
    QCborParserError parseError;
    const QCborValue envelope = QCborValue::fromCbor(data, &parseError);
    if (parseError.error != QCborError::NoError)
        return fail(QStringLiteral("not an archive (%1)").arg(parseError.errorString()));
    if (!envelope.isMap() || envelope[kFormatKey].toString() != QLatin1String(kFormatMarker))
        return fail(QStringLiteral("not an archive (format marker missing)"));
    const QCborValue version = envelope[kVersionKey];
    if (!version.isInteger() || version.toInteger() != kFormatVersion)
        // Only an integer is shown: converting an out-of-range real is undefined behaviour.
        return fail(QStringLiteral("unsupported archive version %1")
                        .arg(version.isInteger() ? QString::number(version.toInteger()) : QStringLiteral("(none)")));
    const QCborValue root = envelope[kRootKey];
    if (root.isUndefined())
        return fail(QStringLiteral("archive has no root object"));
    return root;
}

void setError(NQErrorOpt *out, const NQErrorOpt &error)
{
    if (out)
        *out = error;
}

} // namespace KeyedArchive
