<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message><source>errors.camera_acess_denied</source><translation>Der Zugriff auf die Kamera ist verweigert. Erlauben Sie dieser Anwendung in den Systemeinstellungen, die Kamera zu verwenden, und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_acess_restricted</source><translation>Der Zugriff auf die Kamera ist auf diesem Gerät eingeschränkt. Bitten Sie den Administrator des Geräts, ihn zu erlauben.</translation></message>
    <message><source>errors.camera_busy</source><translation>Eine andere Anwendung verwendet die Kamera. Schließen Sie diese Anwendung und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_no_permission</source><translation>Dieses Benutzerkonto darf die Kamera nicht verwenden. Bitten Sie einen Administrator, es zur Gruppe „video“ hinzuzufügen. Melden Sie sich danach ab und wieder an und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_portal_refused</source><translation>Der Zugriff auf die Kamera wurde in den Datenschutzeinstellungen des Desktops verweigert. Erlauben Sie dieser Anwendung dort, die Kamera zu verwenden, und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_unplugged</source><translation>Die Verbindung zur Kamera wurde getrennt. Schließen Sie die Kamera wieder an und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_no_bandwidth</source><translation>Für die Kamera ist nicht genug USB-Bandbreite frei, weil andere USB-Geräte zu viel davon belegen. Schließen Sie die Kamera an einen anderen USB-Anschluss an oder trennen Sie andere USB-Geräte und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_no_pictures</source><translation>Die Kamera liefert keine Bilder. Trennen Sie sie und schließen Sie sie wieder an, oder starten Sie den Computer neu, und versuchen Sie es dann erneut.</translation></message>
    <message><source>errors.canceled</source><translation>Die Aufnahme wurde abgebrochen.</translation></message>
    <message><source>errors.VIDEO_FLUSH_FAILED</source><translation>Das Sitzungsvideo konnte nicht geschrieben werden.</translation></message>
    <message><source>errors.bad_quality</source><translation>Das Sitzungsvideo konnte nicht komprimiert werden.</translation></message>
    <message><source>errors.multiple_faces_detected</source><translation>Mehr als ein Gesicht ist im Bild. Achten Sie darauf, dass nur Sie vor der Kamera sind.</translation></message>
</context>
<context>
    <name>ZMCameraViewController</name>
    <message><source>Camera</source><translation>Kamera</translation></message>
    <message><source>Live camera view that takes a photo of your face</source><translation>Live-Kamerabild, das ein Foto Ihres Gesichts aufnimmt</translation></message>
    <message><source>Working</source><translation>In Arbeit</translation></message>
    <message><source>Shown while your face is checked or the video is saved</source><translation>Wird angezeigt, während Ihr Gesicht geprüft oder das Video gespeichert wird</translation></message>
    <message><source>Switch camera</source><translation>Kamera wechseln</translation></message>
    <message><source>Switches between the front and the back camera</source><translation>Wechselt zwischen der vorderen und der hinteren Kamera</translation></message>
    <message><source>Close</source><translation>Schließen</translation></message>
    <message><source>Stops the camera without taking a photo</source><translation>Beendet die Kamera, ohne ein Foto aufzunehmen</translation></message>
    <message><source>Message</source><translation>Meldung</translation></message>
    <message><source>There is no camera at %1.</source><translation>Unter %1 gibt es keine Kamera.</translation></message>
    <message><source>The session video cannot be saved in %1.</source><translation>Das Sitzungsvideo kann nicht in %1 gespeichert werden.</translation></message>
    <message><source>The camera screen cannot be made.</source><translation>Der Kamerabildschirm kann nicht erstellt werden.</translation></message>
</context>
</TS>
