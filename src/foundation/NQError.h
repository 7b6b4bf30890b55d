#pragma once

#include <QString>
#include <QVariantMap>

#include <optional>

// An error record: domain, integer code and an information dictionary, as errors travel
// between the parts of the application. Completion callbacks take std::optional<NQError>:
// an empty optional means success.
class NQError {
public:
    // Standard information-dictionary keys, named as on the original platform.
    static constexpr auto kLocalizedDescriptionKey = "NSLocalizedDescription";
    static constexpr auto kLocalizedFailureReasonKey = "NSLocalizedFailureReason";
    static constexpr auto kLocalizedRecoverySuggestionKey = "NSLocalizedRecoverySuggestion";
    static constexpr auto kUnderlyingErrorsKey = "NSMultipleUnderlyingErrorsKey";
    // Domain of operating-system (errno) errors.
    static constexpr auto kPosixDomain = "NSPOSIXErrorDomain";

    NQError() = default;
    NQError(QString domain, int code, QVariantMap userInfo = {});

    const QString &domain() const { return m_domain; }
    int code() const { return m_code; }
    const QVariantMap &userInfo() const { return m_userInfo; }

    // The description from the information dictionary, or the platform's generic sentence
    // "The operation couldn’t be completed. (<domain> error <code>.)".
    QString localizedDescription() const;
    QString localizedFailureReason() const;
    QString localizedRecoverySuggestion() const;
    // One line for logs: "Error Domain=<d> Code=<c> \"<description>\" UserInfo={...}".
    QString debugDescription() const;

    // An error in the POSIX domain for an errno value, described by strerror().
    static NQError posix(int errnoValue);

    bool operator==(const NQError &other) const
    {
        return m_domain == other.m_domain && m_code == other.m_code && m_userInfo == other.m_userInfo;
    }

private:
    QString m_domain;
    int m_code = 0;
    QVariantMap m_userInfo;
};

using NQErrorOpt = std::optional<NQError>;
