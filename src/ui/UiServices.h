#pragma once

class AlertPresenter;
class AppStorageManager;
class ChromeLauncher;
class ExtensionControl;
class LocationLookup;
class LoginItemControl;
class UpdateService;
class UrlOpener;
class VpnEngine;

// Everything outside the user interface that the screens talk to. The application fills it
// with adapters over the real singletons; tests fill it with fakes. The references must
// outlive every screen made from them.
struct UiServices {
    VpnEngine &vpn;
    LocationLookup &location;
    AlertPresenter &alerts;
    UrlOpener &urls;
    ChromeLauncher &chrome;
    ExtensionControl &extension;
    LoginItemControl &loginItems;
    UpdateService &updates;
    AppStorageManager &storage;
};
