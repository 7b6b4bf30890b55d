<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
<context>
    <name></name>
    <message id="ManageUpdates_UpdateGui_day">
        <source>day</source>
        <extracomment>Duration label after a count of 1 day</extracomment>
        <translation>jour</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_days">
        <source>days</source>
        <extracomment>Duration label after a count of several days</extracomment>
        <translation>jours</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_hour">
        <source>hours</source>
        <extracomment>Duration label used for more than one hour (the hour keys are used the other way round from the day keys)</extracomment>
        <translation>heures</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_hours">
        <source>hour</source>
        <extracomment>Duration label used for one hour or less (the hour keys are used the other way round from the day keys)</extracomment>
        <translation>heure</translation>
    </message>
    <message id="ManageUpdates_UpdateGui_minutes">
        <source>minutes</source>
        <extracomment>Duration label after a count of minutes</extracomment>
        <translation>minutes</translation>
    </message>
    <message id="seconds">
        <source>seconds</source>
        <extracomment>Duration label after a count of seconds</extracomment>
        <translation>secondes</translation>
    </message>
    <message id="Missing key">
        <source>Missing key</source>
        <extracomment>Error text, followed by the key name in brackets</extracomment>
        <translation>Clé manquante</translation>
    </message>
    <message id="the key must not to be nil">
        <source>the key must not to be nil</source>
        <extracomment>Credential store error: no key given</extracomment>
        <translation>La clé ne doit pas être vide</translation>
    </message>
    <message id="failed to convert string to data">
        <source>failed to convert string to data</source>
        <extracomment>Credential store error</extracomment>
        <translation>Échec de la conversion du texte en données</translation>
    </message>
    <message id="failed to convert data to string">
        <source>failed to convert data to string</source>
        <extracomment>Credential store error</extracomment>
        <translation>Échec de la conversion des données en texte</translation>
    </message>
    <message id="Security error has occurred.">
        <source>Security error has occurred.</source>
        <extracomment>Credential store error</extracomment>
        <translation>Une erreur de sécurité s'est produite.</translation>
    </message>
    <message id="Unexpected error has occurred.">
        <source>Unexpected error has occurred.</source>
        <extracomment>Credential store error</extracomment>
        <translation>Une erreur inattendue s'est produite.</translation>
    </message>
    <message id="&lt;app_name&gt;">
        <source>&lt;app_name&gt;</source>
        <extracomment>Application name: status item and window title</extracomment>
        <translation>&lt;app_name&gt;</translation>
    </message>
    <message id="Open">
        <source>Open</source>
        <extracomment>Status menu: show the main window</extracomment>
        <translation>Ouvrir</translation>
    </message>
    <message id="Settings">
        <source>Settings</source>
        <extracomment>Status menu: open the settings screen; settings screen title</extracomment>
        <translation>Paramètres</translation>
    </message>
    <message id="Quit_software_name">
        <source>Quit &lt;app_name&gt;</source>
        <extracomment>Status menu: quit the application</extracomment>
        <translation>Quitter &lt;app_name&gt;</translation>
    </message>
    <message id="Connection Error">
        <source>Connection Error</source>
        <extracomment>Alert title when the server cannot be reached</extracomment>
        <translation>Erreur de connexion</translation>
    </message>
    <message id="It seems that your connection to our server is lost.">
        <source>It seems that your connection to our server is lost.</source>
        <extracomment>Alert text at start-up when there is no Internet</extracomment>
        <translation>La connexion à notre serveur semble perdue.</translation>
    </message>
    <message id="It seems that your connection to our server is lost. Please fix connection and try again.">
        <source>It seems that your connection to our server is lost. Please fix connection and try again.</source>
        <extracomment>Error dialog text of the connection panel</extracomment>
        <translation>La connexion à notre serveur semble perdue. Rétablissez la connexion et réessayez.</translation>
    </message>
    <message id="Continue">
        <source>Continue</source>
        <extracomment>Alert button: go on without a connection</extracomment>
        <translation>Continuer</translation>
    </message>
    <message id="Retry">
        <source>Retry</source>
        <extracomment>Alert button: try again</extracomment>
        <translation>Réessayer</translation>
    </message>
    <message id="Restart">
        <source>Restart</source>
        <extracomment>Alert button: restart the application</extracomment>
        <translation>Redémarrer</translation>
    </message>
    <message id="Quit">
        <source>Quit</source>
        <extracomment>Alert button: quit the application</extracomment>
        <translation>Quitter</translation>
    </message>
    <message id="Error">
        <source>Error</source>
        <extracomment>Error dialog title</extracomment>
        <translation>Erreur</translation>
    </message>
    <message id="Connect">
        <source>Connect</source>
        <extracomment>Main button: start the VPN</extracomment>
        <translation>Connecter</translation>
    </message>
    <message id="Disconnect">
        <source>Disconnect</source>
        <extracomment>Main button: stop the VPN</extracomment>
        <translation>Déconnecter</translation>
    </message>
    <message id="Cancel">
        <source>Cancel</source>
        <extracomment>Main button while connecting; dialog button</extracomment>
        <translation>Annuler</translation>
    </message>
    <message id="Disconnecting">
        <source>Disconnecting…</source>
        <extracomment>State line and overlay while the VPN stops</extracomment>
        <translation>Déconnexion…</translation>
    </message>
    <message id="ConnectedTime">
        <source>Connection time</source>
        <extracomment>State line, followed by ': 00:00:00'</extracomment>
        <translation>Durée de connexion</translation>
    </message>
    <message id="ConnectingToTheSecureServerIn">
        <source>Connecting to the secure server in %@…</source>
        <extracomment>Overlay while connecting; %@ is the server's country name</extracomment>
        <translation>Connexion au serveur sécurisé : %@…</translation>
    </message>
    <message id="vpn_setup_failed_check_internet">
        <source>VPN setup failed. Please check your Internet connection.</source>
        <extracomment>Error dialog when the server list cannot be loaded</extracomment>
        <translation>Échec de la configuration du VPN. Vérifiez votre connexion Internet.</translation>
    </message>
    <message id="installing_vpn_configuration_failed">
        <source>Installing the VPN configuration failed. Please try again.</source>
        <extracomment>Error dialog when the server profile cannot be fetched</extracomment>
        <translation>L'installation de la configuration VPN a échoué. Veuillez réessayer.</translation>
    </message>
    <message id="Your location">
        <source>Your location</source>
        <extracomment>Connection panel: the real location</extracomment>
        <translation>Votre position</translation>
    </message>
    <message id="Virtual location">
        <source>Virtual location</source>
        <extracomment>Connection panel: the location seen through the VPN</extracomment>
        <translation>Position virtuelle</translation>
    </message>
    <message id="All locations">
        <source>All locations</source>
        <extracomment>Server list tab</extracomment>
        <translation>Tous les emplacements</translation>
    </message>
    <message id="Favourites">
        <source>Favourites</source>
        <extracomment>Server list tab</extracomment>
        <translation>Favoris</translation>
    </message>
    <message id="Sort by latency">
        <source>Sort by latency</source>
        <extracomment>Server list: check box that orders the rows by latency</extracomment>
        <translation>Trier par latence</translation>
    </message>
    <message id="latency_ms">
        <source>%@ ms</source>
        <extracomment>Server list row: latency of the cluster's server in milliseconds</extracomment>
        <translation>%@ ms</translation>
    </message>
    <message id="latency_description">
        <source>Round-trip time %@ ms</source>
        <extracomment>Server list row, read by screen readers: latency in milliseconds</extracomment>
        <translation>Temps de réponse %@ ms</translation>
    </message>
    <message id="latency_unknown_description">
        <source>Round-trip time not measured or server unreachable</source>
        <extracomment>Server list row, read by screen readers: no latency value</extracomment>
        <translation>Temps de réponse non mesuré ou serveur injoignable</translation>
    </message>
    <message id="Language">
        <source>Language</source>
        <extracomment>Settings: interface language</extracomment>
        <translation>Langue</translation>
    </message>
    <message id="Apply">
        <source>Apply</source>
        <extracomment>Settings: store the changes</extracomment>
        <translation>Appliquer</translation>
    </message>
    <message id="Block ads and trackers">
        <source>Block ads and trackers</source>
        <extracomment>Settings switch: browser extension blocking</extracomment>
        <translation>Bloquer pubs et traqueurs</translation>
    </message>
    <message id="Data compression">
        <source>Data compression</source>
        <extracomment>Settings switch</extracomment>
        <translation>Compression des données</translation>
    </message>
    <message id="Connect automatically">
        <source>Connect automatically</source>
        <extracomment>Settings switch</extracomment>
        <translation>Connexion automatique</translation>
    </message>
    <message id="Start at login">
        <source>Start at login</source>
        <extracomment>Settings switch</extracomment>
        <translation>Lancer à l'ouverture de session</translation>
    </message>
    <message id="Quit when window closes">
        <source>Quit when window closes</source>
        <extracomment>Settings switch</extracomment>
        <translation>Quitter à la fermeture de la fenêtre</translation>
    </message>
    <message id="Update automatically">
        <source>Update automatically</source>
        <extracomment>Settings switch</extracomment>
        <translation>Mise à jour automatique</translation>
    </message>
    <message id="Check for updates automatically">
        <source>Check for updates automatically</source>
        <extracomment>Settings switch</extracomment>
        <translation>Rechercher les mises à jour automatiquement</translation>
    </message>
    <message id="Reconnect required">
        <source>Reconnect required</source>
        <extracomment>Settings alert title</extracomment>
        <translation>Reconnexion nécessaire</translation>
    </message>
    <message id="Please reconect to apply changes.">
        <source>Please reconect to apply changes.</source>
        <extracomment>Settings alert text (the English spelling is kept as shipped)</extracomment>
        <translation>Reconnectez-vous pour appliquer les modifications.</translation>
    </message>
    <message id="Cannot open Google Chrome">
        <source>Cannot open Google Chrome</source>
        <extracomment>Settings alert title</extracomment>
        <translation>Impossible d'ouvrir Google Chrome</translation>
    </message>
    <message id="Ok">
        <source>OK</source>
        <extracomment>Alert button</extracomment>
        <translation>OK</translation>
    </message>
    <message id="Yes">
        <source>Yes</source>
        <extracomment>Update panel button: install the update</extracomment>
        <translation>Oui</translation>
    </message>
    <message id="No">
        <source>No</source>
        <extracomment>Update panel button: not now</extracomment>
        <translation>Non</translation>
    </message>
    <message id="latest_version_already_installed">
        <source>You already have the latest version of &lt;app_name&gt;.</source>
        <extracomment>Update panel: no newer version</extracomment>
        <translation>Vous disposez déjà de la dernière version de &lt;app_name&gt;.</translation>
    </message>
    <message id="update_found">
        <source>A new version of &lt;app_name&gt; is available. Install it now?</source>
        <extracomment>Update panel: a newer version exists; Yes/No follow</extracomment>
        <translation>Une nouvelle version de &lt;app_name&gt; est disponible. L'installer maintenant ?</translation>
    </message>
    <message id="Support">
        <source>Support</source>
        <extracomment>Context menu entry: open the support page</extracomment>
        <translation>Assistance</translation>
    </message>
    <message id="Update">
        <source>Update</source>
        <extracomment>Context menu entry: open the update panel</extracomment>
        <translation>Mise à jour</translation>
    </message>
    <message id="About">
        <source>About</source>
        <extracomment>Context menu entry: open the About view</extracomment>
        <translation>À propos</translation>
    </message>
    <message id="Uninstall">
        <source>Uninstall</source>
        <extracomment>Context menu entry: open the uninstall page</extracomment>
        <translation>Désinstaller</translation>
    </message>
    <message id="Computer ID">
        <source>Computer ID</source>
        <extracomment>About view: label of the device identifier</extracomment>
        <translation>ID de l'ordinateur</translation>
    </message>
    <message id="License agreement">
        <source>License agreement</source>
        <extracomment>About view button</extracomment>
        <translation>Contrat de licence</translation>
    </message>
    <message id="Privacy policy">
        <source>Privacy policy</source>
        <extracomment>About view button</extracomment>
        <translation>Politique de confidentialité</translation>
    </message>
    <message id="Close">
        <source>Close</source>
        <extracomment>Pop-up close button</extracomment>
        <translation>Fermer</translation>
    </message>
    <message id="all_rights_reserved">
        <source>All rights reserved.</source>
        <extracomment>Copyright line, after the copyright holder</extracomment>
        <translation>Tous droits réservés.</translation>
    </message>
    <message id="keyring_stayed_locked">
        <source>The keyring stayed locked</source>
        <extracomment>Start-up alert title when the keyring's unlock prompt was refused</extracomment>
        <translation>Le trousseau est resté verrouillé</translation>
    </message>
    <message id="keyring_unusable">
        <source>The keyring could not be used</source>
        <extracomment>Start-up alert title when the keyring could not be used</extracomment>
        <translation>Le trousseau n'a pas pu être utilisé</translation>
    </message>
    <message id="secrets_not_kept">
        <source>&lt;app_name&gt; will not keep this device's identity and your VPN sign-in after it quits (%@). Unlock the keyring and start &lt;app_name&gt; again to keep them.</source>
        <extracomment>Start-up alert text under either keyring title; %@ is the keyring's own reason</extracomment>
        <translation>&lt;app_name&gt; ne conservera pas l'identité de cet appareil ni votre connexion VPN après sa fermeture (%@). Déverrouillez le trousseau et relancez &lt;app_name&gt; pour les conserver.</translation>
    </message>
    <message id="Block traffic outside the VPN">
        <source>Block traffic outside the VPN</source>
        <extracomment>Settings switch; saved as soon as it is clicked</extracomment>
        <translation>Bloquer le trafic hors du VPN</translation>
    </message>
    <message id="Traffic outside the VPN is blocked">
        <source>Traffic outside the VPN is blocked</source>
        <extracomment>Home screen line while the kill switch blocks traffic</extracomment>
        <translation>Le trafic hors du VPN est bloqué</translation>
    </message>
    <message id="Reconnecting_attempt">
        <source>Reconnecting (attempt %@)…</source>
        <extracomment>State line and overlay while the program connects a fallen tunnel again; %@ is the attempt number</extracomment>
        <translation>Reconnexion (tentative %@)…</translation>
    </message>
    <message id="vpn_credentials_refused">
        <source>The VPN server refused the credentials. Check your account, then connect again.</source>
        <extracomment>Alert text when the VPN server refuses the credentials (no further attempt is made)</extracomment>
        <translation>Le serveur VPN a refusé les identifiants. Vérifiez votre compte, puis reconnectez-vous.</translation>
    </message>
</context>
</TS>
