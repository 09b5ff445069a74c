<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message><source>errors.multiple_faces_detected</source><translation>Mehr als ein Gesicht ist im Bild. Achten Sie darauf, dass nur Sie vor der Kamera sind.</translation></message>
    <message><source>errors.no_face</source><translation>Kein Gesicht gefunden. Schauen Sie in die Kamera.</translation></message>
    <message><source>errors.face_too_far</source><translation>Gehen Sie näher an die Kamera heran.</translation></message>
    <message><source>errors.face_too_close</source><translation>Gehen Sie etwas zurück: Ihr ganzer Kopf muss ins Bild passen.</translation></message>
    <message><source>errors.too_dark</source><translation>Es ist zu dunkel. Suchen Sie mehr Licht.</translation></message>
    <message><source>errors.too_bright</source><translation>Auf Ihrem Gesicht ist zu viel Licht.</translation></message>
    <message><source>errors.face_off_centre</source><translation>Bringen Sie Ihr Gesicht in die Bildmitte.</translation></message>
    <message><source>errors.look_straight</source><translation>Schauen Sie gerade in die Kamera.</translation></message>
    <message><source>errors.eyes_closed</source><translation>Öffnen Sie die Augen.</translation></message>
    <message><source>errors.light_behind</source><translation>Das Licht kommt von hinten. Drehen Sie sich zum Licht.</translation></message>
    <message><source>errors.blurred</source><translation>Das Bild ist unscharf. Halten Sie still.</translation></message>
    <message><source>errors.step_timeout</source><translation>Die Zeit ist abgelaufen. Bitte versuchen Sie es erneut.</translation></message>
    <message><source>errors.no_frames</source><translation>Die Kamera sendet keine Bilder mehr.</translation></message>
    <message><source>errors.liveness_failed</source><translation>Die Lebendprüfung ist fehlgeschlagen. Bitte versuchen Sie es erneut.</translation></message>
    <message><source>errors.detector_unavailable</source><translation>Die Gesichtserkennung ist nicht verfügbar.</translation></message>
    <message><source>errors.unsupported_frames</source><translation>Die Kamera sendet Bilder, die die Gesichtserkennung nicht lesen kann.</translation></message>
    <message><source>steps.turn_left</source><translation>Drehen Sie den Kopf langsam nach links.</translation></message>
    <message><source>steps.turn_right</source><translation>Drehen Sie den Kopf langsam nach rechts.</translation></message>
    <message><source>steps.move_closer</source><translation>Kommen Sie jetzt mit dem Gesicht näher an die Kamera.</translation></message>
</context>
</TS>
