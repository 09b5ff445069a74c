<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>errors.camera_acess_denied</source><translation>Camera access is denied. Allow this application to use the camera in your system settings and try again.</translation></message>
    <message><source>errors.camera_acess_restricted</source><translation>Camera access is restricted on this device. Ask the device administrator to allow it.</translation></message>
    <message><source>errors.canceled</source><translation>The capture was cancelled.</translation></message>
    <message><source>errors.VIDEO_FLUSH_FAILED</source><translation>The session video could not be written.</translation></message>
    <message><source>errors.bad_quality</source><translation>The session video could not be compressed.</translation></message>
    <message><source>errors.multiple_faces_detected</source><translation>More than one face is in view. Make sure only you are in front of the camera.</translation></message>
</context>
</TS>
