<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es">
<context>
    <name>Localizable</name>
    <message><source>errors.camera_acess_denied</source><translation>El acceso a la cámara está denegado. Permita que esta aplicación use la cámara en la configuración del sistema y vuelva a intentarlo.</translation></message>
    <message><source>errors.camera_acess_restricted</source><translation>El acceso a la cámara está restringido en este dispositivo. Pida al administrador del dispositivo que lo permita.</translation></message>
    <message><source>errors.camera_busy</source><translation>Otra aplicación está usando la cámara. Ciérrela y vuelva a intentarlo.</translation></message>
    <message><source>errors.camera_no_permission</source><translation>Esta cuenta de usuario no tiene permiso para usar la cámara. Pida a un administrador que la agregue al grupo «video»; después, cierre la sesión, vuelva a iniciarla e inténtelo de nuevo.</translation></message>
    <message><source>errors.camera_portal_refused</source><translation>El acceso a la cámara se denegó en la configuración de privacidad del entorno de escritorio. Permita allí que esta aplicación use la cámara y vuelva a intentarlo.</translation></message>
    <message><source>errors.camera_unplugged</source><translation>La cámara se desconectó. Vuelva a conectarla e inténtelo de nuevo.</translation></message>
    <message><source>errors.camera_no_bandwidth</source><translation>No hay suficiente ancho de banda USB para la cámara: otros dispositivos USB consumen demasiado. Conecte la cámara a otro puerto USB o desconecte otros dispositivos USB y vuelva a intentarlo.</translation></message>
    <message><source>errors.camera_no_pictures</source><translation>La cámara no envía imágenes. Desconéctela y vuelva a conectarla, o reinicie el equipo; después, inténtelo de nuevo.</translation></message>
    <message><source>errors.canceled</source><translation>La captura se canceló.</translation></message>
    <message><source>errors.VIDEO_FLUSH_FAILED</source><translation>No se pudo guardar el video de la sesión.</translation></message>
    <message><source>errors.bad_quality</source><translation>No se pudo comprimir el video de la sesión.</translation></message>
    <message><source>errors.multiple_faces_detected</source><translation>Hay más de un rostro en la imagen. Asegúrese de que solo usted esté frente a la cámara.</translation></message>
</context>
<context>
    <name>ZMCameraViewController</name>
    <message><source>Camera</source><translation>Cámara</translation></message>
    <message><source>Live camera view that takes a photo of your face</source><translation>Vista en vivo de la cámara que toma una foto de su rostro</translation></message>
    <message><source>Working</source><translation>Procesando</translation></message>
    <message><source>Shown while your face is checked or the video is saved</source><translation>Se muestra mientras se verifica su rostro o se guarda el video</translation></message>
    <message><source>Switch camera</source><translation>Cambiar de cámara</translation></message>
    <message><source>Switches between the front and the back camera</source><translation>Alterna entre la cámara frontal y la trasera</translation></message>
    <message><source>Close</source><translation>Cerrar</translation></message>
    <message><source>Stops the camera without taking a photo</source><translation>Detiene la cámara sin tomar una foto</translation></message>
    <message><source>Message</source><translation>Mensaje</translation></message>
    <message><source>There is no camera at %1.</source><translation>No hay ninguna cámara en %1.</translation></message>
    <message><source>The session video cannot be saved in %1.</source><translation>El video de la sesión no se puede guardar en %1.</translation></message>
    <message><source>The camera screen cannot be made.</source><translation>No se puede crear la pantalla de la cámara.</translation></message>
</context>
</TS>
