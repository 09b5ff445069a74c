<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
<context>
    <name>Localizable</name>
    <message><source>errors.connection</source><translation>Impossible de joindre le serveur. Vérifiez votre connexion, puis réessayez.</translation></message>
    <message><source>errors.liveness_connection</source><translation>La détection du vivant n’a pas pu joindre son serveur. Vérifiez votre connexion, puis réessayez.</translation></message>
</context>
</TS>
