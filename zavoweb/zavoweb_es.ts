<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es">
<context>
    <name>Localizable</name>
    <message><source>errors.connection</source><translation>No se pudo conectar con el servidor. Verifique su conexión y vuelva a intentarlo.</translation></message>
    <message><source>errors.liveness_connection</source><translation>La prueba de vida no pudo conectarse con su servidor. Verifique su conexión y vuelva a intentarlo.</translation></message>
</context>
</TS>
