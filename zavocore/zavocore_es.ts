<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es">
<context>
    <name>Localizable</name>
    <message><source>errors.multiple_faces_detected</source><translation>Hay más de un rostro en la imagen. Asegúrese de que solo usted esté frente a la cámara.</translation></message>
    <message><source>errors.no_face</source><translation>No se detecta ningún rostro. Mire a la cámara.</translation></message>
    <message><source>errors.face_too_far</source><translation>Acérquese a la cámara.</translation></message>
    <message><source>errors.face_too_close</source><translation>Aléjese un poco: toda su cabeza debe caber en la imagen.</translation></message>
    <message><source>errors.too_dark</source><translation>Está demasiado oscuro. Busque un lugar con más luz.</translation></message>
    <message><source>errors.too_bright</source><translation>Hay demasiada luz sobre su rostro.</translation></message>
    <message><source>errors.face_off_centre</source><translation>Centre su rostro en la imagen.</translation></message>
    <message><source>errors.look_straight</source><translation>Mire directamente a la cámara.</translation></message>
    <message><source>errors.eyes_closed</source><translation>Abra los ojos.</translation></message>
    <message><source>errors.light_behind</source><translation>La luz está detrás de usted. Póngase de frente a la luz.</translation></message>
    <message><source>errors.blurred</source><translation>La imagen está borrosa. No se mueva.</translation></message>
    <message><source>errors.step_timeout</source><translation>Se acabó el tiempo. Por favor, vuelva a intentarlo.</translation></message>
    <message><source>errors.no_frames</source><translation>La cámara dejó de enviar imágenes.</translation></message>
    <message><source>errors.liveness_failed</source><translation>La prueba de vida falló. Por favor, vuelva a intentarlo.</translation></message>
    <message><source>errors.detector_unavailable</source><translation>La detección de rostros no está disponible.</translation></message>
    <message><source>errors.unsupported_frames</source><translation>La cámara envía imágenes que la detección de rostros no puede leer.</translation></message>
    <message><source>steps.turn_left</source><translation>Gire la cabeza lentamente hacia la izquierda.</translation></message>
    <message><source>steps.turn_right</source><translation>Gire la cabeza lentamente hacia la derecha.</translation></message>
    <message><source>steps.move_closer</source><translation>Ahora acerque su rostro a la cámara.</translation></message>
</context>
</TS>
