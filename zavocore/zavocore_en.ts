<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>errors.multiple_faces_detected</source><translation>More than one face is in view. Make sure only you are in front of the camera.</translation></message>
</context>
</TS>
