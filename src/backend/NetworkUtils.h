#pragma once

#include <QString>

#include <functional>

// Whether the backend can be reached. Both checks fetch the reachability address and count
// any answer at all as online, an HTTP error page included; only a transport failure (no
// route, refused, timed out, ...) counts as offline.
class NetworkUtils {
public:
    // The backend base URL compiled into the program (NQConfig identityServiceAPI: the quoted
    // build value with its first and last character cut off), made once.
    static QString RequestAddress();
    // Points both checks elsewhere (tests); a null string goes back to the built-in address.
    static void setRequestAddressForTesting(const QString &address);

    // Fetches the address on the calling thread, waiting in a local event loop for at most the
    // NQConfig HTTP time-out (60 s unless lowered), which stands in for the platform's own
    // default. Logs "|NetworkUtils| Device Network Status: ONLINE" or "...: OFFLINE".
    static bool checkIsInternetAvailable();

    // Fetches the address on a session of its own; the completion runs once on the main
    // thread with a null string when reachable and "No internet" when not.
    static void checkIsInternetAvailableWithCompletion(std::function<void(const QString &error)> completion);
};
