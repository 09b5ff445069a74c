<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
<context>
    <name>Localizable</name>
    <message><source>errors.multiple_faces_detected</source><translation>Plusieurs visages sont visibles. Assurez-vous qu’il n’y a que vous devant la caméra.</translation></message>
    <message><source>errors.no_face</source><translation>Aucun visage détecté. Regardez la caméra.</translation></message>
    <message><source>errors.face_too_far</source><translation>Rapprochez-vous de la caméra.</translation></message>
    <message><source>errors.face_too_close</source><translation>Reculez un peu&#xa0;: votre tête doit tenir entièrement dans l’image.</translation></message>
    <message><source>errors.too_dark</source><translation>Il fait trop sombre. Placez-vous dans un endroit plus éclairé.</translation></message>
    <message><source>errors.too_bright</source><translation>Votre visage est trop éclairé.</translation></message>
    <message><source>errors.face_off_centre</source><translation>Centrez votre visage dans l’image.</translation></message>
    <message><source>errors.look_straight</source><translation>Regardez la caméra bien en face.</translation></message>
    <message><source>errors.eyes_closed</source><translation>Ouvrez les yeux.</translation></message>
    <message><source>errors.light_behind</source><translation>La lumière vient de derrière vous. Placez-vous face à la lumière.</translation></message>
    <message><source>errors.blurred</source><translation>L’image est floue. Ne bougez pas.</translation></message>
    <message><source>errors.step_timeout</source><translation>Le temps est écoulé. Veuillez réessayer.</translation></message>
    <message><source>errors.no_frames</source><translation>La caméra a cessé d’envoyer des images.</translation></message>
    <message><source>errors.liveness_failed</source><translation>La détection du vivant a échoué. Veuillez réessayer.</translation></message>
    <message><source>errors.detector_unavailable</source><translation>La détection des visages n’est pas disponible.</translation></message>
    <message><source>errors.unsupported_frames</source><translation>La caméra envoie des images que la détection des visages ne peut pas lire.</translation></message>
    <message><source>steps.turn_left</source><translation>Tournez lentement la tête vers la gauche.</translation></message>
    <message><source>steps.turn_right</source><translation>Tournez lentement la tête vers la droite.</translation></message>
    <message><source>steps.move_closer</source><translation>Approchez maintenant votre visage de la caméra.</translation></message>
</context>
</TS>
