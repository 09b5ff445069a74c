<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<!-- A host's own wording for a few of the component's strings, as a host
     would ship it: one keyed string of each bundle and two of the screen. -->
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>errors.face_too_far</source><translation>Please come a little closer.</translation></message>
    <message><source>errors.connection</source><translation>No connection to the identity service.</translation></message>
    <message><source>errors.canceled</source><translation>You stopped the check.</translation></message>
</context>
<context>
    <name>ZMCameraViewController</name>
    <message><source>Switch camera</source><translation>Use the other camera</translation></message>
    <message><source>Close</source><translation>Done</translation></message>
</context>
</TS>
