<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name></name>
    <message id="ManageUpdates_UpdateGui_day">
        <source>day</source>
        <extracomment>Duration label after a count of 1 day</extracomment>
        <translation>Tag</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_days">
        <source>days</source>
        <extracomment>Duration label after a count of several days</extracomment>
        <translation>Tage</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_hour">
        <source>hours</source>
        <extracomment>Duration label used for more than one hour (the hour keys are used the other way round from the day keys)</extracomment>
        <translation>Stunden</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_hours">
        <source>hour</source>
        <extracomment>Duration label used for one hour or less (the hour keys are used the other way round from the day keys)</extracomment>
        <translation>Stunde</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_minutes">
        <source>minutes</source>
        <extracomment>Duration label after a count of minutes</extracomment>
        <translation>Minuten</translation>
    </message>
    <message id="seconds">
        <source>seconds</source>
        <extracomment>Duration label after a count of seconds</extracomment>
        <translation>Sekunden</translation>
    </message>
    <message id="Missing key">
        <source>Missing key</source>
        <extracomment>Error text, followed by the key name in brackets</extracomment>
        <translation>Fehlender Schlüssel</translation>
    </message>
    <message id="the key must not to be nil">
        <source>the key must not to be nil</source>
        <extracomment>Credential store error: no key given</extracomment>
        <translation>Der Schlüssel darf nicht leer sein</translation>
    </message>
    <message id="failed to convert string to data">
        <source>failed to convert string to data</source>
        <extracomment>Credential store error</extracomment>
        <translation>Text konnte nicht in Daten umgewandelt werden</translation>
    </message>
    <message id="failed to convert data to string">
        <source>failed to convert data to string</source>
        <extracomment>Credential store error</extracomment>
        <translation>Daten konnten nicht in Text umgewandelt werden</translation>
    </message>
    <message id="Security error has occurred.">
        <source>Security error has occurred.</source>
        <extracomment>Credential store error</extracomment>
        <translation>Ein Sicherheitsfehler ist aufgetreten.</translation>
    </message>
    <message id="Unexpected error has occurred.">
        <source>Unexpected error has occurred.</source>
        <extracomment>Credential store error</extracomment>
        <translation>Ein unerwarteter Fehler ist aufgetreten.</translation>
    </message>
    <message id="&lt;app_name&gt;">
        <source>&lt;app_name&gt;</source>
        <extracomment>Application name: status item and window title</extracomment>
        <translation>&lt;app_name&gt;</translation>
    </message>
    <message id="Open">
        <source>Open</source>
        <extracomment>Status menu: show the main window</extracomment>
        <translation>Öffnen</translation>
    </message>
    <message id="Settings">
        <source>Settings</source>
        <extracomment>Status menu: open the settings screen; settings screen title</extracomment>
        <translation>Einstellungen</translation>
    </message>
    <message id="Quit_software_name">
        <source>Quit &lt;app_name&gt;</source>
        <extracomment>Status menu: quit the application</extracomment>
        <translation>&lt;app_name&gt; beenden</translation>
    </message>
    <message id="Connection Error">
        <source>Connection Error</source>
        <extracomment>Alert title when the server cannot be reached</extracomment>
        <translation>Verbindungsfehler</translation>
    </message>
    <message id="It seems that your connection to our server is lost.">
        <source>It seems that your connection to our server is lost.</source>
        <extracomment>Alert text at start-up when there is no Internet</extracomment>
        <translation>Die Verbindung zu unserem Server scheint unterbrochen zu sein.</translation>
    </message>
    <message id="It seems that your connection to our server is lost. Please fix connection and try again.">
        <source>It seems that your connection to our server is lost. Please fix connection and try again.</source>
        <extracomment>Error dialog text of the connection panel</extracomment>
        <translation>Die Verbindung zu unserem Server scheint unterbrochen zu sein. Bitte stellen Sie die Verbindung wieder her und versuchen Sie es erneut.</translation>
    </message>
    <message id="Continue">
        <source>Continue</source>
        <extracomment>Alert button: go on without a connection</extracomment>
        <translation>Weiter</translation>
    </message>
    <message id="Retry">
        <source>Retry</source>
        <extracomment>Alert button: try again</extracomment>
        <translation>Wiederholen</translation>
    </message>
    <message id="Restart">
        <source>Restart</source>
        <extracomment>Alert button: restart the application</extracomment>
        <translation>Neu starten</translation>
    </message>
    <message id="Quit">
        <source>Quit</source>
        <extracomment>Alert button: quit the application</extracomment>
        <translation>Beenden</translation>
    </message>
    <message id="Error">
        <source>Error</source>
        <extracomment>Error dialog title</extracomment>
        <translation>Fehler</translation>
    </message>
    <message id="Connect">
        <source>Connect</source>
        <extracomment>Main button: start the VPN</extracomment>
        <translation>Verbinden</translation>
    </message>
    <message id="Disconnect">
        <source>Disconnect</source>
        <extracomment>Main button: stop the VPN</extracomment>
        <translation>Trennen</translation>
    </message>
    <message id="Cancel">
        <source>Cancel</source>
        <extracomment>Main button while connecting; dialog button</extracomment>
        <translation>Abbrechen</translation>
    </message>
    <message id="Disconnecting">
        <source>Disconnecting…</source>
        <extracomment>State line and overlay while the VPN stops</extracomment>
        <translation>Verbindung wird getrennt…</translation>
    </message>
    <message id="ConnectedTime">
        <source>Connection time</source>
        <extracomment>State line, followed by ': 00:00:00'</extracomment>
        <translation>Verbindungsdauer</translation>
    </message>
    <message id="ConnectingToTheSecureServerIn">
        <source>Connecting to the secure server in %@…</source>
        <extracomment>Overlay while connecting; %@ is the server's country name</extracomment>
        <translation>Sichere Verbindung wird hergestellt: %@…</translation>
    </message>
    <message id="vpn_setup_failed_check_internet">
        <source>VPN setup failed. Please check your Internet connection.</source>
        <extracomment>Error dialog when the server list cannot be loaded</extracomment>
        <translation>VPN-Einrichtung fehlgeschlagen. Bitte prüfen Sie Ihre Internetverbindung.</translation>
    </message>
    <message id="installing_vpn_configuration_failed">
        <source>Installing the VPN configuration failed. Please try again.</source>
        <extracomment>Error dialog when the server profile cannot be fetched</extracomment>
        <translation>Die VPN-Konfiguration konnte nicht installiert werden. Bitte versuchen Sie es erneut.</translation>
    </message>
    <message id="Your location">
        <source>Your location</source>
        <extracomment>Connection panel: the real location</extracomment>
        <translation>Ihr Standort</translation>
    </message>
    <message id="Virtual location">
        <source>Virtual location</source>
        <extracomment>Connection panel: the location seen through the VPN</extracomment>
        <translation>Virtueller Standort</translation>
    </message>
    <message id="All locations">
        <source>All locations</source>
        <extracomment>Server list tab</extracomment>
        <translation>Alle Standorte</translation>
    </message>
    <message id="Favourites">
        <source>Favourites</source>
        <extracomment>Server list tab</extracomment>
        <translation>Favoriten</translation>
    </message>
    <message id="Sort by latency">
        <source>Sort by latency</source>
        <extracomment>Server list: check box that orders the rows by latency</extracomment>
        <translation>Nach Latenz sortieren</translation>
    </message>
    <message id="latency_ms">
        <source>%@ ms</source>
        <extracomment>Server list row: latency of the cluster's server in milliseconds</extracomment>
        <translation>%@ ms</translation>
    </message>
    <message id="latency_description">
        <source>Round-trip time %@ ms</source>
        <extracomment>Server list row, read by screen readers: latency in milliseconds</extracomment>
        <translation>Antwortzeit %@ ms</translation>
    </message>
    <message id="latency_unknown_description">
        <source>Round-trip time not measured or server unreachable</source>
        <extracomment>Server list row, read by screen readers: no latency value</extracomment>
        <translation>Antwortzeit nicht gemessen oder Server nicht erreichbar</translation>
    </message>
    <message id="Language">
        <source>Language</source>
        <extracomment>Settings: interface language</extracomment>
        <translation>Sprache</translation>
    </message>
    <message id="Apply">
        <source>Apply</source>
        <extracomment>Settings: store the changes</extracomment>
        <translation>Übernehmen</translation>
    </message>
    <message id="Block ads and trackers">
        <source>Block ads and trackers</source>
        <extracomment>Settings switch: browser extension blocking</extracomment>
        <translation>Werbung und Tracker blockieren</translation>
    </message>
    <message id="Data compression">
        <source>Data compression</source>
        <extracomment>Settings switch</extracomment>
        <translation>Datenkomprimierung</translation>
    </message>
    <message id="Connect automatically">
        <source>Connect automatically</source>
        <extracomment>Settings switch</extracomment>
        <translation>Automatisch verbinden</translation>
    </message>
    <message id="Start at login">
        <source>Start at login</source>
        <extracomment>Settings switch</extracomment>
        <translation>Beim Anmelden starten</translation>
    </message>
    <message id="Quit when window closes">
        <source>Quit when window closes</source>
        <extracomment>Settings switch</extracomment>
        <translation>Beim Schließen des Fensters beenden</translation>
    </message>
    <message id="Update automatically">
        <source>Update automatically</source>
        <extracomment>Settings switch</extracomment>
        <translation>Automatisch aktualisieren</translation>
    </message>
    <message id="Check for updates automatically">
        <source>Check for updates automatically</source>
        <extracomment>Settings switch</extracomment>
        <translation>Automatisch nach Updates suchen</translation>
    </message>
    <message id="Reconnect required">
        <source>Reconnect required</source>
        <extracomment>Settings alert title</extracomment>
        <translation>Erneute Verbindung erforderlich</translation>
    </message>
    <message id="Please reconect to apply changes.">
        <source>Please reconect to apply changes.</source>
        <extracomment>Settings alert text (the English spelling is kept as shipped)</extracomment>
        <translation>Bitte verbinden Sie sich erneut, um die Änderungen zu übernehmen.</translation>
    </message>
    <message id="Cannot open Google Chrome">
        <source>Cannot open Google Chrome</source>
        <extracomment>Settings alert title</extracomment>
        <translation>Google Chrome kann nicht geöffnet werden</translation>
    </message>
    <message id="Ok">
        <source>OK</source>
        <extracomment>Alert button</extracomment>
        <translation>OK</translation>
    </message>
    <message id="Yes">
        <source>Yes</source>
        <extracomment>Update panel button: install the update</extracomment>
        <translation>Ja</translation>
    </message>
    <message id="No">
        <source>No</source>
        <extracomment>Update panel button: not now</extracomment>
        <translation>Nein</translation>
    </message>
    <message id="latest_version_already_installed">
        <source>You already have the latest version of &lt;app_name&gt;.</source>
        <extracomment>Update panel: no newer version</extracomment>
        <translation>Sie verwenden bereits die neueste Version von &lt;app_name&gt;.</translation>
    </message>
    <message id="update_found">
        <source>A new version of &lt;app_name&gt; is available. Install it now?</source>
        <extracomment>Update panel: a newer version exists; Yes/No follow</extracomment>
        <translation>Eine neue Version von &lt;app_name&gt; ist verfügbar. Jetzt installieren?</translation>
    </message>
    <message id="Support">
        <source>Support</source>
        <extracomment>Context menu entry: open the support page</extracomment>
        <translation>Support</translation>
    </message>
    <message id="Update">
        <source>Update</source>
        <extracomment>Context menu entry: open the update panel</extracomment>
        <translation>Aktualisieren</translation>
    </message>
    <message id="About">
        <source>About</source>
        <extracomment>Context menu entry: open the About view</extracomment>
        <translation>Über</translation>
    </message>
    <message id="Uninstall">
        <source>Uninstall</source>
        <extracomment>Context menu entry: open the uninstall page</extracomment>
        <translation>Deinstallieren</translation>
    </message>
    <message id="Computer ID">
        <source>Computer ID</source>
        <extracomment>About view: label of the device identifier</extracomment>
        <translation>Computer-ID</translation>
    </message>
    <message id="License agreement">
        <source>License agreement</source>
        <extracomment>About view button</extracomment>
        <translation>Lizenzvereinbarung</translation>
    </message>
    <message id="Privacy policy">
        <source>Privacy policy</source>
        <extracomment>About view button</extracomment>
        <translation>Datenschutzerklärung</translation>
    </message>
    <message id="Close">
        <source>Close</source>
        <extracomment>Pop-up close button</extracomment>
        <translation>Schließen</translation>
    </message>
    <message id="all_rights_reserved">
        <source>All rights reserved.</source>
        <extracomment>Copyright line, after the copyright holder</extracomment>
        <translation>Alle Rechte vorbehalten.</translation>
    </message>
    <message id="keyring_stayed_locked">
        <source>The keyring stayed locked</source>
        <extracomment>Start-up alert title when the keyring's unlock prompt was refused</extracomment>
        <translation>Der Schlüsselbund blieb gesperrt</translation>
    </message>
    <message id="keyring_unusable">
        <source>The keyring could not be used</source>
        <extracomment>Start-up alert title when the keyring could not be used</extracomment>
        <translation>Der Schlüsselbund konnte nicht verwendet werden</translation>
    </message>
    <message id="secrets_not_kept">
        <source>&lt;app_name&gt; will not keep this device's identity and your VPN sign-in after it quits (%@). Unlock the keyring and start &lt;app_name&gt; again to keep them.</source>
        <extracomment>Start-up alert text under either keyring title; %@ is the keyring's own reason</extracomment>
        <translation>&lt;app_name&gt; behält die Identität dieses Geräts und Ihre VPN-Anmeldung nach dem Beenden nicht (%@). Entsperren Sie den Schlüsselbund und starten Sie &lt;app_name&gt; erneut, um sie zu behalten.</translation>
    </message>
    <message id="Block traffic outside the VPN">
        <source>Block traffic outside the VPN</source>
        <extracomment>Settings switch; saved as soon as it is clicked</extracomment>
        <translation>Datenverkehr außerhalb des VPN sperren</translation>
    </message>
    <message id="Traffic outside the VPN is blocked">
        <source>Traffic outside the VPN is blocked</source>
        <extracomment>Home screen line while the kill switch blocks traffic</extracomment>
        <translation>Datenverkehr außerhalb des VPN ist gesperrt</translation>
    </message>
    <message id="Reconnecting_attempt">
        <source>Reconnecting (attempt %@)…</source>
        <extracomment>State line and overlay while the program connects a fallen tunnel again; %@ is the attempt number</extracomment>
        <translation>Verbindung wird wiederhergestellt (Versuch %@)…</translation>
    </message>
    <message id="vpn_credentials_refused">
        <source>The VPN server refused the credentials. Check your account, then connect again.</source>
        <extracomment>Alert text when the VPN server refuses the credentials (no further attempt is made)</extracomment>
        <translation>Der VPN-Server hat die Zugangsdaten abgelehnt. Prüfen Sie Ihr Konto und verbinden Sie sich dann erneut.</translation>
    </message>
</context>
</TS>
