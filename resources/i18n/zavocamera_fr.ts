<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
<context>
    <name>Localizable</name>
    <message><source>errors.camera_acess_denied</source><translation>L’accès à la caméra est refusé. Autorisez cette application à utiliser la caméra dans les paramètres du système, puis réessayez.</translation></message>
    <message><source>errors.camera_acess_restricted</source><translation>L’accès à la caméra est restreint sur cet appareil. Demandez à l’administrateur de l’appareil de l’autoriser.</translation></message>
    <message><source>errors.camera_busy</source><translation>Une autre application utilise la caméra. Fermez-la, puis réessayez.</translation></message>
    <message><source>errors.camera_no_permission</source><translation>Ce compte utilisateur n’est pas autorisé à utiliser la caméra. Demandez à un administrateur de l’ajouter au groupe «&#xa0;video&#xa0;», puis déconnectez-vous, reconnectez-vous et réessayez.</translation></message>
    <message><source>errors.camera_portal_refused</source><translation>L’accès à la caméra a été refusé dans les paramètres de confidentialité de l’environnement de bureau. Autorisez cette application à utiliser la caméra dans ces paramètres, puis réessayez.</translation></message>
    <message><source>errors.camera_unplugged</source><translation>La caméra a été déconnectée. Reconnectez-la, puis réessayez.</translation></message>
    <message><source>errors.camera_no_bandwidth</source><translation>La bande passante USB est insuffisante pour la caméra&#xa0;: d’autres périphériques USB en utilisent trop. Branchez la caméra sur un autre port USB ou débranchez d’autres périphériques USB, puis réessayez.</translation></message>
    <message><source>errors.camera_no_pictures</source><translation>La caméra n’envoie aucune image. Débranchez-la et rebranchez-la, ou redémarrez l’ordinateur, puis réessayez.</translation></message>
    <message><source>errors.canceled</source><translation>La capture a été annulée.</translation></message>
    <message><source>errors.VIDEO_FLUSH_FAILED</source><translation>La vidéo de la session n’a pas pu être enregistrée.</translation></message>
    <message><source>errors.bad_quality</source><translation>La vidéo de la session n’a pas pu être compressée.</translation></message>
    <message><source>errors.multiple_faces_detected</source><translation>Plusieurs visages sont visibles. Assurez-vous qu’il n’y a que vous devant la caméra.</translation></message>
</context>
<context>
    <name>ZMCameraViewController</name>
    <message><source>Camera</source><translation>Caméra</translation></message>
    <message><source>Live camera view that takes a photo of your face</source><translation>Vue en direct de la caméra, qui prend une photo de votre visage</translation></message>
    <message><source>Working</source><translation>Traitement en cours</translation></message>
    <message><source>Shown while your face is checked or the video is saved</source><translation>Affiché pendant la vérification de votre visage ou l’enregistrement de la vidéo</translation></message>
    <message><source>Switch camera</source><translation>Changer de caméra</translation></message>
    <message><source>Switches between the front and the back camera</source><translation>Bascule entre la caméra avant et la caméra arrière</translation></message>
    <message><source>Close</source><translation>Fermer</translation></message>
    <message><source>Stops the camera without taking a photo</source><translation>Arrête la caméra sans prendre de photo</translation></message>
    <message><source>Message</source><translation>Message</translation></message>
    <message><source>There is no camera at %1.</source><translation>Aucune caméra ne se trouve à l'emplacement %1.</translation></message>
    <message><source>The session video cannot be saved in %1.</source><translation>La vidéo de la session ne peut pas être enregistrée dans %1.</translation></message>
    <message><source>The camera screen cannot be made.</source><translation>L'écran de la caméra ne peut pas être créé.</translation></message>
</context>
</TS>
