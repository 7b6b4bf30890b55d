#pragma once

#include <QString>

// The constants compiled into the program: brand, identifiers, HTTP time-out and the backend
// address. One record, filled once on first use.
struct NQConfig {
    QString labelName;
    QString labelID;
    QString appName;
    QString appBundleID;
    QString appDomainError;
    double appHttpDefaultTimeout = 0; // seconds
    quint64 identityServiceVersion = 0;
    QString identityServiceHost;
    QString identityServiceAPI;

    // The process-wide record. The HTTP time-out is 60 seconds unless the environment
    // variable PELORIN_HTTP_TIMEOUT (seconds) or setHttpTimeoutForTesting says otherwise;
    // PELORIN_BACKEND_URL replaces the built-in backend address (development backends).
    static const NQConfig &shared();
    // Lowers the time-out so that tests of unanswered requests do not wait a minute. Call it
    // before any request starts; it is not synchronised with readers.
    static void setHttpTimeoutForTesting(double seconds);

    // The record made from the build's values (what shared() returns before any override).
    static NQConfig makeDefault();
    // The backend address from its build value, which is written with surrounding quotes:
    // the first and the last character are cut off.
    static QString unquotedBuildValue(const QString &quoted);

    // "<NQConfig>={\n 'labelName': ..." for the log.
    QString description() const;
};
