<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>errors.connection</source><translation>The server could not be reached. Check your connection and try again.</translation></message>
    <message><source>errors.liveness_connection</source><translation>The liveness check could not reach its server. Check your connection and try again.</translation></message>
</context>
</TS>
