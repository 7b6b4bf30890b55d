#pragma once

// Every in-app event name, and the userInfo keys they carry. Names are process-wide and never
// leave the process.
namespace Events {

inline constexpr auto NOTIFICATION_LOADING_START = "NOTIFICATION_LOADING_START";
inline constexpr auto NOTIFICATION_LOADING_END = "NOTIFICATION_LOADING_END";
inline constexpr auto NOTIFICATION_CLUSTERS_LOADED = "NOTIFICATION_CLUSTERS_LOADED";
inline constexpr auto NOTIFICATION_APP_READY = "NOTIFICATION_APP_READY";
inline constexpr auto NT_TOGGLE_ABOUT = "NT_TOGGLE_ABOUT";
inline constexpr auto NT_HIDE_ABOUT = "NT_HIDE_ABOUT";
inline constexpr auto NT_CLUSTERS_SELECT = "NT_CLUSTERS_SELECT";
inline constexpr auto NT_TOGGLE_CONTEXT = "NT_TOGGLE_CONTEXT"; // reserved
inline constexpr auto NT_HIDE_CONTEXT = "NT_HIDE_CONTEXT";
inline constexpr auto NT_REFRESH_CONNECT = "NT_REFRESH_CONNECT";
// What the machine did under a tunnel the user wants: about to sleep, awake again, the default
// route or network changed. NT_TUNNEL_WANTED: the user asked for a tunnel (start watching).
inline constexpr auto NT_SYSTEM_SLEEP = "NT_SYSTEM_SLEEP";
inline constexpr auto NT_SYSTEM_WAKE = "NT_SYSTEM_WAKE";
inline constexpr auto NT_NETWORK_CHANGED = "NT_NETWORK_CHANGED";
inline constexpr auto NT_TUNNEL_WANTED = "NT_TUNNEL_WANTED";
inline constexpr auto LANGUAGE_SELECTED = "LANGUAGE_SELECTED";
inline constexpr auto APP_RESTART = "APP_RESTART";
inline constexpr auto NT_REQUEST_APP_RESTART = "NT_REQUEST_APP_RESTART"; // reserved
inline constexpr auto SHOW_SETTINGS = "SHOW_SETTINGS";
inline constexpr auto NT_TOGGLE_UPDATE = "NT_TOGGLE_UPDATE";
inline constexpr auto NT_HIDE_UPDATE = "NT_HIDE_UPDATE";
inline constexpr auto NT_TOGGLE_INFO_POPUP = "NT_TOGGLE_INFO_POPUP"; // reserved
inline constexpr auto NT_HIDE_INFO_POPUP = "NT_HIDE_INFO_POPUP";
inline constexpr auto NT_RUN_SERVICE = "NT_RUN_SERVICE"; // reserved

// Browser extension events, posted by the bridge; nothing in the application observes them.
inline constexpr auto NT_BROWSER_CONNECTED = "NT_BROWSER_CONNECTED";
inline constexpr auto NT_BROWSER_ANY_EVENT = "NT_BROWSER_ANY_EVENT";
inline constexpr auto NT_BROWSER_FOUND_COOKIES = "NT_BROWSER_FOUND_COOKIES";
inline constexpr auto NT_BROWSER_BLOCKED = "NT_BROWSER_BLOCKED";
inline constexpr auto NT_BROWSER_ADS_BLOCKER_ON = "NT_BROWSER_ADS_BLOCKER_ON";
inline constexpr auto NT_BROWSER_ADS_BLOCKER_OFF = "NT_BROWSER_ADS_BLOCKER_OFF";
inline constexpr auto NT_BROWSER_CHROME_TRACK_ON = "NT_BROWSER_CHROME_TRACK_ON";
inline constexpr auto NT_BROWSER_CHROME_TRACK_OFF = "NT_BROWSER_CHROME_TRACK_OFF";
inline constexpr auto NT_BROWSER_FIREFOX_TRACK_ON = "NT_BROWSER_FIREFOX_TRACK_ON";
inline constexpr auto NT_BROWSER_FIREFOX_TRACK_OFF = "NT_BROWSER_FIREFOX_TRACK_OFF";

// userInfo keys
inline constexpr auto NQVpnKeyClustersArray = "NQVpnKeyClustersArray"; // QList<NQVPNCountry>
inline constexpr auto kCurrentCountry = "currentCountry";              // NQVPNCountry
inline constexpr auto kData = "DATA";                                  // NT_BROWSER_CONNECTED

} // namespace Events
