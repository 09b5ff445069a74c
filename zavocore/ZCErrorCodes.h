#pragma once
// Errors the reference detector reports through ZCBestShotDelegate::bestShotError.
// All are platform::ErrorObject values in kZCErrorDomain; the localized text
// is in the user info (kLocalizedDescriptionKey) and the string-table key in
// kZCMessageKeyInfoKey.
//
//  code  meaning                                   key                              after it
//  ----  ----------------------------------------  -------------------------------  -------------------------
//  1000  the wizard's step ran out of time (its    errors.step_timeout              detector stops
//        text ends with the last guidance shown)
//  1001  the detector cannot work (cascade files   errors.detector_unavailable,     reported once; the step
//        missing, frames in a format it cannot     errors.unsupported_frames        timeout ends the session
//        read)
//  1004  frames stopped arriving                   errors.no_frames                 detector stops
//  1007  the liveness check refused the face       errors.liveness_failed           detector pauses (resume)
//  1010  where the face is: too few pixels across  errors.face_too_far,             guidance, detection goes on
//        it (come closer), too large for a         errors.face_too_close,
//        portrait (move back), at or over an edge  errors.face_off_centre
//        of the frame (centre it)
//  1021  the face not good enough for a shot:      errors.look_straight,            guidance, detection goes on
//        turned away, too dark, too bright or      errors.too_dark, errors.too_
//        burnt out, lit from behind, blurred,      bright, errors.light_behind,
//        eyes shut                                 errors.blurred,
//                                                  errors.eyes_closed
//  1022  no face in view                           errors.no_face                   guidance, detection goes on
//  1023  more than one face in view                errors.multiple_faces_detected   guidance, detection goes on
//  1030  what the current interaction step asks    steps.turn_left, steps.turn_     prompt, the step goes on
//        (not sent for "look at the camera")       right, steps.move_closer
//
// A step's prompt (1030) is reported when the step starts and repeated every
// guidanceRepeatInterval while it lasts and no guidance is due instead.
// Guidance (1010, 1021, 1022, 1023) is reported when the situation has lasted
// for ZCDetectorSettings::guidanceDelay of frame time, again when it changes
// to another message, and repeated every guidanceRepeatInterval while it
// lasts. A liveness failure that is not a refusal is passed on as the
// checker reported it (a web::NetworkingError passes through unchanged); the
// detector then pauses, except after a quality complaint with a message
// (the user can fix it), after which it looks for a new shot.
#include "base/ZavoExport.h"
#include "base/Error.h"

#include <QString>

namespace zavo::core {

enum class ZCErrorCode : long {
    StepTimeout = 1000,
    DetectorUnavailable = 1001,
    NoFrames = 1004,
    LivenessRefused = 1007,
    FaceSize = 1010,
    BadQuality = 1021,
    NoFace = 1022,
    MultipleFaces = 1023,
    StepPrompt = 1030,
};

/// User-info key holding the string-table key of the message.
inline constexpr const char* kZCMessageKeyInfoKey = "ZCMessageKey";

/// User-info key holding the string-table key of the last guidance shown
/// before the step ran out of time (1000), when there was one.
inline constexpr const char* kZCLastGuidanceInfoKey = "ZCLastGuidanceKey";

/// An error in kZCErrorDomain with the localized text of messageKey.
ZAVO_EXPORT platform::ErrorObjectPtr makeZCError(ZCErrorCode code, const QString& messageKey);
/// The same, its text followed by that of reasonKey (why the user did not
/// get there, in the user's words), which kZCLastGuidanceInfoKey names.
ZAVO_EXPORT platform::ErrorObjectPtr makeZCError(ZCErrorCode code, const QString& messageKey, const QString& reasonKey);

}  // namespace zavo::core
