<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>errors.camera_acess_denied</source><translation>Camera access is denied. Allow this application to use the camera in your system settings and try again.</translation></message>
    <message><source>errors.camera_acess_restricted</source><translation>Camera access is restricted on this device. Ask the device administrator to allow it.</translation></message>
    <message><source>errors.camera_busy</source><translation>Another application is using the camera. Close it and try again.</translation></message>
    <message><source>errors.camera_no_permission</source><translation>This user account may not use the camera. Ask an administrator to add it to the “video” group, then log out, log in again and try again.</translation></message>
    <message><source>errors.camera_portal_refused</source><translation>Camera access was refused in the desktop&apos;s privacy settings. Allow this application to use the camera there and try again.</translation></message>
    <message><source>errors.camera_unplugged</source><translation>The camera was disconnected. Connect it again and try again.</translation></message>
    <message><source>errors.camera_no_bandwidth</source><translation>There is not enough USB bandwidth for the camera: other USB devices are using too much of it. Connect the camera to another USB port or disconnect other USB devices, and try again.</translation></message>
    <message><source>errors.camera_no_pictures</source><translation>The camera sends no pictures. Disconnect it and connect it again, or restart the computer, then try again.</translation></message>
    <message><source>errors.canceled</source><translation>The capture was cancelled.</translation></message>
    <message><source>errors.VIDEO_FLUSH_FAILED</source><translation>The session video could not be written.</translation></message>
    <message><source>errors.bad_quality</source><translation>The session video could not be compressed.</translation></message>
    <message><source>errors.multiple_faces_detected</source><translation>More than one face is in view. Make sure only you are in front of the camera.</translation></message>
</context>
<context>
    <name>ZMCameraViewController</name>
    <message><source>Camera</source><translation>Camera</translation></message>
    <message><source>Live camera view that takes a photo of your face</source><translation>Live camera view that takes a photo of your face</translation></message>
    <message><source>Working</source><translation>Working</translation></message>
    <message><source>Shown while your face is checked or the video is saved</source><translation>Shown while your face is checked or the video is saved</translation></message>
    <message><source>Switch camera</source><translation>Switch camera</translation></message>
    <message><source>Switches between the front and the back camera</source><translation>Switches between the front and the back camera</translation></message>
    <message><source>Close</source><translation>Close</translation></message>
    <message><source>Stops the camera without taking a photo</source><translation>Stops the camera without taking a photo</translation></message>
    <message><source>Message</source><translation>Message</translation></message>
    <message><source>There is no camera at %1.</source><translation>There is no camera at %1.</translation></message>
    <message><source>The session video cannot be saved in %1.</source><translation>The session video cannot be saved in %1.</translation></message>
    <message><source>The camera screen cannot be made.</source><translation>The camera screen cannot be made.</translation></message>
</context>
</TS>
