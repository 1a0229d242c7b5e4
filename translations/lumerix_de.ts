<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>About</name>
    <message>
        <source>About %1</source>
        <translation>Über %1</translation>
    </message>
    <message>
        <source>Version %1</source>
        <translation>Version %1</translation>
    </message>
    <message>
        <source>Lists the presentation receivers nearby and connects the sender to the one you choose.</source>
        <translation>Listet die Präsentationsempfänger in der Nähe auf und verbindet den Sender mit dem gewählten.</translation>
    </message>
</context>
<context>
    <name>AppDelegate</name>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>the receiver</source>
        <translation>den Empfänger</translation>
    </message>
    <message>
        <source>Please turn on bluetooth</source>
        <translation>Bitte schalten Sie Bluetooth ein</translation>
    </message>
    <message>
        <source>This application needs bluetooth access authority</source>
        <translation>Diese Anwendung braucht Zugriff auf Bluetooth</translation>
    </message>
    <message>
        <source>No tray on this desktop</source>
        <translation>Kein Infobereich auf dieser Arbeitsfläche</translation>
    </message>
    <message>
        <source>Lumerix appears once a tray runs (on GNOME: the AppIndicator extension). Meanwhile &quot;lumerix --scan&quot; lists the receivers in a terminal.</source>
        <translation>Lumerix erscheint, sobald ein Infobereich läuft (unter GNOME: die Erweiterung AppIndicator). Bis dahin listet &quot;lumerix --scan&quot; die Empfänger im Terminal auf.</translation>
    </message>
    <message>
        <source>About</source>
        <translation>Über</translation>
    </message>
    <message>
        <source>Exit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>%1 is not installed</source>
        <translation>%1 ist nicht installiert</translation>
    </message>
    <message>
        <source>Install %1 to share your screen with %2.</source>
        <translation>Installieren Sie %1, um Ihren Bildschirm auf %2 zu zeigen.</translation>
    </message>
    <message>
        <source>%1 could not be started</source>
        <translation>%1 konnte nicht gestartet werden</translation>
    </message>
    <message>
        <source>Start %1 yourself, then choose %2 again.</source>
        <translation>Starten Sie %1 selbst und wählen Sie dann %2 erneut.</translation>
    </message>
    <message>
        <source>Starting %1</source>
        <translation>%1 wird gestartet</translation>
    </message>
    <message>
        <source>%1 connects to %2 as soon as it is up.</source>
        <translation>%1 übernimmt %2, sobald es bereit ist.</translation>
    </message>
    <message>
        <source>Could not reach %1</source>
        <translation>%1 nicht erreichbar</translation>
    </message>
    <message>
        <source>%1 did not take %2: nothing answered on 127.0.0.1:%3. Restart %1 and choose %2 again.</source>
        <translation>%1 hat %2 nicht übernommen: Auf 127.0.0.1:%3 hat niemand geantwortet. Starten Sie %1 neu und wählen Sie %2 erneut.</translation>
    </message>
    <message>
        <source>%1 port held by another user</source>
        <translation>%1-Port von anderem Benutzer belegt</translation>
    </message>
    <message>
        <source>The program listening on 127.0.0.1:%1 is not your %2, so %3 and its login code were not sent. Quit the other program or ask an administrator, then start %2 and choose %3 again.</source>
        <translation>Das Programm an 127.0.0.1:%1 ist nicht Ihr %2, daher wurden %3 und sein Anmeldecode nicht gesendet. Beenden Sie das andere Programm oder fragen Sie die Administration, starten Sie dann %2 und wählen Sie %3 erneut.</translation>
    </message>
    <message>
        <source>Try again</source>
        <translation>Erneut versuchen</translation>
    </message>
    <message>
        <source>Troubleshoot</source>
        <translation>Fehlersuche</translation>
    </message>
</context>
<context>
    <name>CommandLine</name>
    <message>
        <source>Scan without the tray and print the receivers (10 seconds unless given).</source>
        <translation>Ohne Infobereich suchen und die Empfänger ausgeben (10 Sekunden, wenn nicht angegeben).</translation>
    </message>
    <message>
        <source>Read one receiver&apos;s connection information over GATT (a diagnostic).</source>
        <translation>Die Verbindungsdaten eines Empfängers über GATT lesen (zur Diagnose).</translation>
    </message>
    <message>
        <source>Check Bluetooth, the desktop and the sender, one line per check.</source>
        <translation>Bluetooth, Arbeitsfläche und Sender prüfen, eine Zeile je Prüfung.</translation>
    </message>
    <message>
        <source>Print the receivers nearby, from the running tray or from a scan of its own.</source>
        <translation>Die Empfänger in der Nähe ausgeben, vom laufenden Lumerix oder aus einer eigenen Suche.</translation>
    </message>
    <message>
        <source>Hand a receiver to the sender, through the running tray or on its own.</source>
        <translation>Einen Empfänger an den Sender übergeben, über das laufende Lumerix oder selbst.</translation>
    </message>
    <message>
        <source>Login mode: no alert; wait in the tray until Bluetooth is on.</source>
        <translation>Anmeldemodus: keine Meldung; im Infobereich warten, bis Bluetooth an ist.</translation>
    </message>
    <message>
        <source>Show simulated receivers instead of scanning.</source>
        <translation>Simulierte Empfänger zeigen, statt zu suchen.</translation>
    </message>
    <message>
        <source>Print JSON instead of text.</source>
        <translation>JSON statt Text ausgeben.</translation>
    </message>
    <message>
        <source>Give up after this long (--gatt-read: 20 seconds; --list, --connect: scan 5 seconds).</source>
        <translation>Nach dieser Zeit aufgeben (--gatt-read: 20 Sekunden; --list, --connect: 5 Sekunden suchen).</translation>
    </message>
    <message>
        <source>Append every advertisement heard to FILE, one JSON line each.</source>
        <translation>Jede empfangene Anzeige an FILE anhängen, je eine JSON-Zeile.</translation>
    </message>
    <message>
        <source>Play the advertisements recorded in FILE instead of scanning.</source>
        <translation>Die in FILE aufgezeichneten Anzeigen abspielen, statt zu suchen.</translation>
    </message>
    <message>
        <source>Show this help.</source>
        <translation>Diese Hilfe anzeigen.</translation>
    </message>
    <message>
        <source>Show the version.</source>
        <translation>Die Version anzeigen.</translation>
    </message>
    <message>
        <source>the tray</source>
        <translation>dem Infobereich</translation>
    </message>
    <message>
        <source>%1 or %2</source>
        <translation>%1 oder %2</translation>
    </message>
    <message>
        <source>Unexpected argument &apos;%1&apos;.</source>
        <translation>Unerwartetes Argument &apos;%1&apos;.</translation>
    </message>
    <message>
        <source>%1 and %2 cannot be used together.</source>
        <translation>%1 und %2 gehen nicht zusammen.</translation>
    </message>
    <message>
        <source>%1 goes only with %2.</source>
        <translation>%1 geht nur mit %2.</translation>
    </message>
    <message>
        <source>The scan duration must be a number of seconds up to %1, got &apos;%2&apos;.</source>
        <translation>Die Suchdauer muss eine Zahl von Sekunden bis %1 sein, nicht &apos;%2&apos;.</translation>
    </message>
    <message>
        <source>--gatt-read needs a receiver&apos;s IDENTIFIER.</source>
        <translation>--gatt-read braucht die IDENTIFIER eines Empfängers.</translation>
    </message>
    <message>
        <source>--connect needs a receiver&apos;s NAME, its IDENTIFIER or nearest.</source>
        <translation>--connect braucht NAME oder IDENTIFIER eines Empfängers oder nearest.</translation>
    </message>
    <message>
        <source>--record needs a FILE.</source>
        <translation>--record braucht eine FILE.</translation>
    </message>
    <message>
        <source>--replay needs a FILE.</source>
        <translation>--replay braucht eine FILE.</translation>
    </message>
    <message>
        <source>--demo and --replay cannot be used together.</source>
        <translation>--demo und --replay gehen nicht zusammen.</translation>
    </message>
    <message>
        <source>The timeout must be a number of seconds up to %1, got &apos;%2&apos;.</source>
        <translation>Die Wartezeit muss eine Zahl von Sekunden bis %1 sein, nicht &apos;%2&apos;.</translation>
    </message>
    <message>
        <source>Usage:</source>
        <translation>Aufruf:</translation>
    </message>
    <message>
        <source>Lists the presentation receivers nearby in the tray, strongest first, and hands the one you pick to the sender application.</source>
        <translation>Listet die Präsentationsempfänger in der Nähe im Infobereich auf, den stärksten zuerst, und übergibt den gewählten an die Sender-Anwendung.</translation>
    </message>
    <message>
        <source>Options:</source>
        <translation>Optionen:</translation>
    </message>
    <message>
        <source>Exit status: 0 on success; 1 when --doctor finds a problem, there is no display or another error occurs; 2 when Bluetooth is off or missing; 3 when --gatt-read times out or --connect finds no such receiver; 4 when --connect finds no sender application installed; 5 when the sender did not take the receiver; 64 on a usage error.</source>
        <translation>Rückgabewert: 0 bei Erfolg; 1, wenn --doctor ein Problem findet, keine Anzeige da ist oder ein anderer Fehler auftritt; 2, wenn Bluetooth aus ist oder fehlt; 3, wenn --gatt-read die Zeit überschreitet oder --connect keinen solchen Empfänger findet; 4, wenn --connect keine installierte Sender-Anwendung findet; 5, wenn der Sender den Empfänger nicht übernommen hat; 64 bei falschem Aufruf.</translation>
    </message>
</context>
<context>
    <name>DiagnosticsWindow</name>
    <message>
        <source>Lumerix diagnostics</source>
        <translation>Lumerix-Diagnose</translation>
    </message>
    <message>
        <source>Running lumerix --doctor</source>
        <translation>lumerix --doctor läuft</translation>
    </message>
    <message>
        <source>lumerix --doctor did not run: %1</source>
        <translation>lumerix --doctor ist nicht gelaufen: %1</translation>
    </message>
</context>
<context>
    <name>Doctor</name>
    <message>
        <source>System bus</source>
        <translation>Systembus</translation>
    </message>
    <message>
        <source>Bluetooth adapter</source>
        <translation>Bluetooth-Adapter</translation>
    </message>
    <message>
        <source>Adapter powered</source>
        <translation>Adapter eingeschaltet</translation>
    </message>
    <message>
        <source>Discovery filter</source>
        <translation>Suchfilter</translation>
    </message>
    <message>
        <source>cannot connect</source>
        <translation>keine Verbindung möglich</translation>
    </message>
    <message>
        <source>start the system bus: sudo systemctl start dbus</source>
        <translation>den Systembus starten: sudo systemctl start dbus</translation>
    </message>
    <message>
        <source>needs the system bus</source>
        <translation>braucht den Systembus</translation>
    </message>
    <message>
        <source>reachable</source>
        <translation>erreichbar</translation>
    </message>
    <message>
        <source>org.bluez is not on the system bus</source>
        <translation>org.bluez ist nicht auf dem Systembus</translation>
    </message>
    <message>
        <source>install bluez and start it: sudo systemctl enable --now bluetooth</source>
        <translation>bluez installieren und starten: sudo systemctl enable --now bluetooth</translation>
    </message>
    <message>
        <source>needs bluetoothd</source>
        <translation>braucht bluetoothd</translation>
    </message>
    <message>
        <source>running</source>
        <translation>läuft</translation>
    </message>
    <message>
        <source>bluetoothd refused to answer: </source>
        <translation>bluetoothd verweigert die Antwort: </translation>
    </message>
    <message>
        <source>allow this user to use Bluetooth (the bluetooth group or the D-Bus policy of org.bluez)</source>
        <translation>diesem Benutzer Bluetooth erlauben (Gruppe bluetooth oder D-Bus-Richtlinie von org.bluez)</translation>
    </message>
    <message>
        <source>bluetoothd did not answer: </source>
        <translation>bluetoothd hat nicht geantwortet: </translation>
    </message>
    <message>
        <source>restart it: sudo systemctl restart bluetooth</source>
        <translation>neu starten: sudo systemctl restart bluetooth</translation>
    </message>
    <message>
        <source>none</source>
        <translation>keiner</translation>
    </message>
    <message>
        <source>plug in a Bluetooth adapter, or check that its driver is loaded (dmesg)</source>
        <translation>einen Bluetooth-Adapter anschließen oder prüfen, ob sein Treiber geladen ist (dmesg)</translation>
    </message>
    <message>
        <source>needs an adapter</source>
        <translation>braucht einen Adapter</translation>
    </message>
    <message>
        <source>%1 is on</source>
        <translation>%1 ist an</translation>
    </message>
    <message>
        <source>%1 is off</source>
        <translation>%1 ist aus</translation>
    </message>
    <message>
        <source>%1 does not say</source>
        <translation>%1 gibt nichts an</translation>
    </message>
    <message>
        <source>turn Bluetooth on: bluetoothctl power on</source>
        <translation>Bluetooth einschalten: bluetoothctl power on</translation>
    </message>
    <message>
        <source>needs the adapter on</source>
        <translation>braucht den eingeschalteten Adapter</translation>
    </message>
    <message>
        <source>refused: </source>
        <translation>abgelehnt: </translation>
    </message>
    <message>
        <source>update BlueZ (5.50 or later) and make sure no other program holds a different filter</source>
        <translation>BlueZ aktualisieren (5.50 oder neuer) und sicherstellen, dass kein anderes Programm einen anderen Filter hält</translation>
    </message>
    <message>
        <source>hard-blocked: </source>
        <translation>hart gesperrt: </translation>
    </message>
    <message>
        <source>turn on the wireless switch or key of this computer (or its firmware setting)</source>
        <translation>den Funkschalter oder die Funktaste dieses Computers einschalten (oder die Firmware-Einstellung)</translation>
    </message>
    <message>
        <source>soft-blocked: </source>
        <translation>weich gesperrt: </translation>
    </message>
    <message>
        <source>rfkill unblock bluetooth</source>
        <translation>rfkill unblock bluetooth</translation>
    </message>
    <message>
        <source>no Bluetooth switch</source>
        <translation>kein Bluetooth-Schalter</translation>
    </message>
    <message>
        <source>Bluetooth not blocked</source>
        <translation>Bluetooth nicht gesperrt</translation>
    </message>
    <message>
        <source>Tray host</source>
        <translation>Infobereich</translation>
    </message>
    <message>
        <source>StatusNotifierWatcher on the session bus</source>
        <translation>StatusNotifierWatcher auf dem Sitzungsbus</translation>
    </message>
    <message>
        <source>X11 system tray</source>
        <translation>X11-Infobereich</translation>
    </message>
    <message>
        <source>no StatusNotifierWatcher and no X11 system tray</source>
        <translation>kein StatusNotifierWatcher und kein X11-Infobereich</translation>
    </message>
    <message>
        <source>enable a tray (on GNOME the AppIndicator extension); lumerix --scan works without one</source>
        <translation>einen Infobereich aktivieren (unter GNOME die Erweiterung AppIndicator); lumerix --scan geht auch ohne</translation>
    </message>
    <message>
        <source>Notification server</source>
        <translation>Benachrichtigungsdienst</translation>
    </message>
    <message>
        <source>org.freedesktop.Notifications</source>
        <translation>org.freedesktop.Notifications</translation>
    </message>
    <message>
        <source>none on the session bus</source>
        <translation>keiner auf dem Sitzungsbus</translation>
    </message>
    <message>
        <source>install or start one (the desktop&apos;s own, or dunst or mako)</source>
        <translation>einen installieren oder starten (den der Arbeitsfläche, dunst oder mako)</translation>
    </message>
    <message>
        <source>Sender application</source>
        <translation>Sender-Anwendung</translation>
    </message>
    <message>
        <source>not running</source>
        <translation>läuft nicht</translation>
    </message>
    <message>
        <source>running (pid %1)</source>
        <translation>läuft (PID %1)</translation>
    </message>
    <message>
        <source>installed, </source>
        <translation>installiert, </translation>
    </message>
    <message>
        <source>: Lumerix starts it when you pick a receiver</source>
        <translation>: Lumerix startet ihn, wenn Sie einen Empfänger wählen</translation>
    </message>
    <message>
        <source>no %1 in the applications folders, %2</source>
        <translation>kein %1 in den Anwendungsordnern, %2</translation>
    </message>
    <message>
        <source>install the sender application (Sharvane)</source>
        <translation>die Sender-Anwendung installieren (Sharvane)</translation>
    </message>
    <message>
        <source>Port 127.0.0.1:%1</source>
        <translation>Port 127.0.0.1:%1</translation>
    </message>
    <message>
        <source>free</source>
        <translation>frei</translation>
    </message>
    <message>
        <source>held by the running Lumerix (pid %1)</source>
        <translation>vom laufenden Lumerix belegt (PID %1)</translation>
    </message>
    <message>
        <source>held by another program</source>
        <translation>von einem anderen Programm belegt</translation>
    </message>
    <message>
        <source>find it with: ss -ltnp &apos;sport = :%1&apos;</source>
        <translation>finden mit: ss -ltnp &apos;sport = :%1&apos;</translation>
    </message>
    <message>
        <source>cannot be opened: </source>
        <translation>kann nicht geöffnet werden: </translation>
    </message>
    <message>
        <source>check that the loopback interface is up</source>
        <translation>prüfen, ob die Loopback-Schnittstelle aktiv ist</translation>
    </message>
    <message>
        <source>Saved receivers</source>
        <translation>Gespeicherte Empfänger</translation>
    </message>
    <message>
        <source>%1 saved receiver(s) in %2</source>
        <translation>%1 gespeicherte(r) Empfänger in %2</translation>
    </message>
    <message>
        <source> is not a readable list (Lumerix keeps it aside and starts empty)</source>
        <translation> ist keine lesbare Liste (Lumerix legt sie beiseite und beginnt leer)</translation>
    </message>
    <message>
        <source>repair it (plistutil -i) or remove it</source>
        <translation>reparieren (plistutil -i) oder entfernen</translation>
    </message>
    <message>
        <source>none saved yet; the first start begins with an empty list</source>
        <translation>noch keine gespeichert; der erste Start beginnt mit einer leeren Liste</translation>
    </message>
    <message>
        <source>none saved yet; the first start takes %1 receiver(s) from %2</source>
        <translation>noch keine gespeichert; der erste Start übernimmt %1 Empfänger aus %2</translation>
    </message>
    <message>
        <source> is not a readable list</source>
        <translation> ist keine lesbare Liste</translation>
    </message>
    <message>
        <source>repair the default list (plistutil -i) or remove it</source>
        <translation>die Standardliste reparieren (plistutil -i) oder entfernen</translation>
    </message>
    <message>
        <source>Skipped (%1): %2</source>
        <translation>Übersprungen (%1): %2</translation>
    </message>
    <message>
        <source>The tray can work.</source>
        <translation>Lumerix kann arbeiten.</translation>
    </message>
    <message>
        <source>The tray cannot work until the checks marked ✗ pass.</source>
        <translation>Lumerix kann erst arbeiten, wenn die mit ✗ markierten Prüfungen bestehen.</translation>
    </message>
    <message>
        <source>Transport le with DuplicateData and Pattern LX accepted</source>
        <translation>Transport le mit DuplicateData und Pattern LX angenommen</translation>
    </message>
</context>
<context>
    <name>HeadlessSession</name>
    <message>
        <source>Bluetooth stopped during the scan: %1.</source>
        <translation>Bluetooth hat während der Suche aufgehört: %1.</translation>
    </message>
    <message>
        <source>Cannot scan: %1.</source>
        <translation>Suche nicht möglich: %1.</translation>
    </message>
    <message>
        <source>Run &quot;lumerix --doctor&quot; to see why.</source>
        <translation>&quot;lumerix --doctor&quot; zeigt, warum.</translation>
    </message>
</context>
<context>
    <name>ReceiverCommands</name>
    <message>
        <source>The sender application (%1) is not installed.</source>
        <translation>Die Sender-Anwendung (%1) ist nicht installiert.</translation>
    </message>
    <message>
        <source>Run &quot;lumerix --doctor&quot; to see what is missing.</source>
        <translation>&quot;lumerix --doctor&quot; zeigt, was fehlt.</translation>
    </message>
    <message>
        <source>The running Lumerix did not answer: %1</source>
        <translation>Das laufende Lumerix hat nicht geantwortet: %1</translation>
    </message>
    <message>
        <source>No receiver &quot;%1&quot; nearby.</source>
        <translation>Kein Empfänger &quot;%1&quot; in der Nähe.</translation>
    </message>
    <message>
        <source>The sender did not take &quot;%1&quot; on port %2.</source>
        <translation>Der Sender hat &quot;%1&quot; auf Port %2 nicht übernommen.</translation>
    </message>
    <message>
        <source>Sent &quot;%1&quot; to the sender.</source>
        <translation>&quot;%1&quot; an den Sender geschickt.</translation>
    </message>
    <message>
        <source>The details of &quot;%1&quot; do not fit a frame.</source>
        <translation>Die Daten von &quot;%1&quot; passen in keinen Rahmen.</translation>
    </message>
    <message>
        <source>Cannot listen for the sender on port %1.</source>
        <translation>Kann auf Port %1 nicht auf den Sender warten.</translation>
    </message>
    <message>
        <source>Launched the sender for &quot;%1&quot;; waiting for it to ask.</source>
        <translation>Sender für &quot;%1&quot; gestartet; warte auf seine Anfrage.</translation>
    </message>
    <message>
        <source>The sender fetched &quot;%1&quot;.</source>
        <translation>Der Sender hat &quot;%1&quot; abgeholt.</translation>
    </message>
    <message>
        <source>The sender did not ask for &quot;%1&quot; within %2 s.</source>
        <translation>Der Sender hat &quot;%1&quot; nicht innerhalb von %2 s angefragt.</translation>
    </message>
    <message>
        <source>Port %1 is held by another user&apos;s program; &quot;%2&quot; was not sent.</source>
        <translation>Port %1 ist vom Programm eines anderen Benutzers belegt; „%2“ wurde nicht gesendet.</translation>
    </message>
</context>
<context>
    <name>ReceiverSearch</name>
    <message>
        <source>Saved receiver</source>
        <translation>Gespeicherter Empfänger</translation>
    </message>
    <message>
        <source>Nearby, signal unknown</source>
        <translation>In der Nähe, Signal unbekannt</translation>
    </message>
    <message>
        <source>Nearby, strong signal (%1 dBm)</source>
        <translation>In der Nähe, starkes Signal (%1 dBm)</translation>
    </message>
    <message>
        <source>Nearby, fair signal (%1 dBm)</source>
        <translation>In der Nähe, mittleres Signal (%1 dBm)</translation>
    </message>
    <message>
        <source>Nearby, weak signal (%1 dBm)</source>
        <translation>In der Nähe, schwaches Signal (%1 dBm)</translation>
    </message>
</context>
<context>
    <name>ReceiverToolTip</name>
    <message>
        <source>Searching for receivers</source>
        <translation>Suche nach Empfängern</translation>
    </message>
    <message>
        <source>Bluetooth is off</source>
        <translation>Bluetooth ist aus</translation>
    </message>
    <message>
        <source>No Bluetooth adapter</source>
        <translation>Kein Bluetooth-Adapter</translation>
    </message>
    <message>
        <source>Bluetooth service (bluetoothd) is not running</source>
        <translation>Bluetooth-Dienst (bluetoothd) läuft nicht</translation>
    </message>
    <message>
        <source>Bluetooth access denied</source>
        <translation>Bluetooth-Zugriff verweigert</translation>
    </message>
    <message>
        <source>Checking Bluetooth</source>
        <translation>Bluetooth wird geprüft</translation>
    </message>
    <message>
        <source>, %1 s ago</source>
        <translation>, vor %1 s</translation>
    </message>
    <message>
        <source>and %1 more</source>
        <translation>und %1 weitere</translation>
    </message>
</context>
<context>
    <name>TrayApp</name>
    <message>
        <source>Present to the nearest room</source>
        <translation>Im nächstgelegenen Raum präsentieren</translation>
    </message>
</context>
</TS>
