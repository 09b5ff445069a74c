<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message><source>errors.camera_acess_denied</source><translation>Der Zugriff auf die Kamera ist verweigert. Erlauben Sie dieser Anwendung in den Systemeinstellungen, die Kamera zu verwenden, und versuchen Sie es erneut.</translation></message>
    <message><source>errors.camera_acess_restricted</source><translation>Der Zugriff auf die Kamera ist auf diesem Gerät eingeschränkt. Bitten Sie den Administrator des Geräts, ihn zu erlauben.</translation></message>
    <message><source>errors.canceled</source><translation>Die Aufnahme wurde abgebrochen.</translation></message>
    <message><source>errors.VIDEO_FLUSH_FAILED</source><translation>Das Sitzungsvideo konnte nicht geschrieben werden.</translation></message>
    <message><source>errors.bad_quality</source><translation>Das Sitzungsvideo konnte nicht komprimiert werden.</translation></message>
    <message><source>errors.multiple_faces_detected</source><translation>Mehr als ein Gesicht ist im Bild. Achten Sie darauf, dass nur Sie vor der Kamera sind.</translation></message>
</context>
</TS>
