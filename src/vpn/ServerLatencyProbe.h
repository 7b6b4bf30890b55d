#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// Measures the round trip to VPN servers, off the calling thread.
class ServerLatencyProbe {
public:
    // Milliseconds, or nothing when the server did not answer in time or refused.
    using Result = std::optional<int>;
    using Each = std::function<void(const QString &address, Result milliseconds)>;

    virtual ~ServerLatencyProbe() = default;
    // Probes every address (host name or IP); `each` runs once per address on the main thread.
    virtual void measure(const QStringList &addresses, Each each) = 0;
};
