#pragma once

// The tunnel state, stored under "UDVpnStatus" and passed to onConnectionStateChange.
// Only VpnStateConnected counts as connected; 4 is never produced.
enum VpnState : int {
    VpnStateAuthFailed = 0,
    VpnStateDisconnected = 1,
    VpnStateConnecting = 2,
    VpnStateConnected = 3,
    VpnStateDisconnecting = 5,
};
