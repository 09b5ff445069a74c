<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>errors.multiple_faces_detected</source><translation>More than one face is in view. Make sure only you are in front of the camera.</translation></message>
    <message><source>errors.no_face</source><translation>No face found. Look at the camera.</translation></message>
    <message><source>errors.face_too_far</source><translation>Move closer to the camera.</translation></message>
    <message><source>errors.face_too_close</source><translation>Move back a little: your whole head must fit in the picture.</translation></message>
    <message><source>errors.too_dark</source><translation>It is too dark. Find more light.</translation></message>
    <message><source>errors.too_bright</source><translation>There is too much light on your face.</translation></message>
    <message><source>errors.face_off_centre</source><translation>Centre your face in the picture.</translation></message>
    <message><source>errors.look_straight</source><translation>Look straight at the camera.</translation></message>
    <message><source>errors.eyes_closed</source><translation>Open your eyes.</translation></message>
    <message><source>errors.light_behind</source><translation>The light is behind you. Face the light.</translation></message>
    <message><source>errors.blurred</source><translation>The picture is blurred. Hold still.</translation></message>
    <message><source>errors.step_timeout</source><translation>Time is up. Please try again.</translation></message>
    <message><source>errors.no_frames</source><translation>The camera stopped sending pictures.</translation></message>
    <message><source>errors.liveness_failed</source><translation>The liveness check failed. Please try again.</translation></message>
    <message><source>errors.detector_unavailable</source><translation>Face detection is not available.</translation></message>
    <message><source>errors.unsupported_frames</source><translation>The camera sends pictures that face detection cannot read.</translation></message>
    <message><source>steps.turn_left</source><translation>Turn your head slowly to the left.</translation></message>
    <message><source>steps.turn_right</source><translation>Turn your head slowly to the right.</translation></message>
    <message><source>steps.move_closer</source><translation>Now bring your face closer to the camera.</translation></message>
</context>
</TS>
