#include "foundation/StringAddition.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStringDecoder>

namespace {

constexpr char kXorKey[] = "GlkoMXGjtEkDnNfribxUdldXTPyLsxPFkT";
constexpr qsizetype kXorKeyLength = sizeof(kXorKey) - 1;
static_assert(kXorKeyLength == 34);

constexpr char kIdentifierAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr int kIdentifierLength = 32;

// The strict address pattern is kept for reference; the lax one is what sign-up forms accept.
constexpr bool kStrictEmailCheck = false;
constexpr auto kLaxEmailPattern = R"(.+@([A-Za-z0-9-]+\.)+[A-Za-z]{2}[A-Za-z]*)";
constexpr auto kStrictEmailPattern = R"([A-Z0-9a-z\._%+-]+@([A-Za-z0-9-]+\.)+[A-Za-z]{2,4})";

// Password character classes in the order a character is counted.
constexpr const char *kPasswordClasses[] = {"abcdefghijklmnopqrstuvwxyz", "ABCDEFGHIJKLMNOPQRSTUVWXYZ", "0123456789",
                                            "!@#$%^&*()-+"};
constexpr qsizetype kMinimumPasswordLength = 8;

QString hexDigest(const QString &text, QCryptographicHash::Algorithm algorithm)
{
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), algorithm).toHex());
}

} // namespace

namespace StringAddition {

QString sha1(const QString &text)
{
    return hexDigest(text, QCryptographicHash::Sha1);
}

QString sha256(const QString &text)
{
    return hexDigest(text, QCryptographicHash::Sha256);
}

QString sha1base64(const QString &text)
{
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha1).toBase64());
}

QString xor_(const QString &text)
{
    QByteArray bytes = text.toUtf8();
    for (qsizetype i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(bytes[i] ^ kXorKey[i % kXorKeyLength]);
    // Keep a leading byte-order mark as a character so the round trip gives back every byte.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::ConvertInitialBom);
    QString result = decoder.decode(bytes);
    if (decoder.hasError())
        return {};
    if (result.isNull())
        result = QLatin1String("");
    return result;
}

// Short secrets (3 characters or less) stay readable: masking them would hide nothing useful.
// Otherwise up to the last 6 characters stay visible, always at least one character hidden.
QString masked(const QString &text)
{
    const qsizetype length = text.size();
    if (length <= 3)
        return text;
    const qsizetype keep = length < 6 ? length - 1 : 6;
    return QString(length - keep, QLatin1Char('*')) + text.right(keep);
}

QString stringBetweenString(const QString &text, const QString &start, const QString &end)
{
    if (start.isEmpty() || end.isEmpty())
        return {};
    const qsizetype startAt = text.indexOf(start);
    if (startAt < 0)
        return {};
    const qsizetype from = startAt + start.size();
    const qsizetype endAt = text.indexOf(end, from);
    if (endAt < 0)
        return {};
    QString between = text.mid(from, endAt - from);
    if (between.isNull())
        between = QLatin1String("");
    return between;
}

QString stringBetweenString2(const QString &text, const QString &start, const QString &end)
{
    return stringBetweenString(text, start, end);
}

bool stringCorrectEmailFormat(const QString &text)
{
    const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QLatin1String(kStrictEmailCheck ? kStrictEmailPattern : kLaxEmailPattern)));
    return pattern.match(text).hasMatch();
}

bool isPasswordStrong(const QString &text)
{
    if (text.size() < kMinimumPasswordLength)
        return false;
    bool seen[4] = {false, false, false, false};
    for (const QChar c : text) {
        for (int i = 0; i < 4; ++i) {
            if (QLatin1String(kPasswordClasses[i]).contains(c)) {
                seen[i] = true;
                break;
            }
        }
        if (seen[0] && seen[1] && seen[2] && seen[3])
            return true;
    }
    return false;
}

std::optional<QRegularExpressionMatch> firstMatchedResultWithRegex(const QString &text, const QString &pattern)
{
    const QRegularExpression re(pattern);
    if (!re.isValid())
        return std::nullopt;
    QRegularExpressionMatch match = re.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    return match;
}

QStringList matchWithRegex(const QString &text, const QString &pattern)
{
    const auto match = firstMatchedResultWithRegex(text, pattern);
    if (!match)
        return {};
    QStringList ranges;
    // One entry per group of the pattern, captured or not, like the match record's ranges.
    const int count = match->regularExpression().captureCount() + 1;
    for (int i = 0; i < count; ++i)
        ranges << match->captured(i);
    return ranges;
}

QString matchWithRegex(const QString &text, const QString &pattern, int index)
{
    const auto match = firstMatchedResultWithRegex(text, pattern);
    if (!match || index < 0 || index > match->regularExpression().captureCount())
        return {};
    return match->captured(index);
}

QString firstMatchedGroupWithRegex(const QString &text, const QString &pattern)
{
    return matchWithRegex(text, pattern, 1);
}

QString randomDeviceID()
{
    QString id;
    id.reserve(kIdentifierLength + 4);
    for (int i = 0; i < kIdentifierLength; ++i)
        id += QLatin1Char(kIdentifierAlphabet[QRandomGenerator::system()->bounded(36)]);
    return id + QLatin1String("MAC2");
}

QString secondsToMMHHSS(quint64 seconds)
{
    return QString::asprintf("%llu:%02llu:%02llu", static_cast<unsigned long long>(seconds / 3600),
                             static_cast<unsigned long long>((seconds / 60) % 60),
                             static_cast<unsigned long long>(seconds % 60));
}

} // namespace StringAddition
