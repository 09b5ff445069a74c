<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message><source>errors.connection</source><translation>Der Server ist nicht erreichbar. Prüfen Sie Ihre Verbindung und versuchen Sie es erneut.</translation></message>
    <message><source>errors.liveness_connection</source><translation>Die Lebendprüfung kann ihren Server nicht erreichen. Prüfen Sie Ihre Verbindung und versuchen Sie es erneut.</translation></message>
</context>
</TS>
