#pragma once
// Errors the reference detector reports through ZCBestShotDelegate::bestShotError.
// All are platform::ErrorObject values in kZCErrorDomain; the localized text
// is in the user info (kLocalizedDescriptionKey) and the string-table key in
// kZCMessageKeyInfoKey.
//
//  code  meaning                                   key                              after it
//  ----  ----------------------------------------  -------------------------------  -------------------------
//  1000  the wizard's step ran out of time         errors.step_timeout              detector stops
//  1001  the detector cannot work (cascade files   errors.detector_unavailable,     reported once; the step
//        missing, frames in a format it cannot     errors.unsupported_frames        timeout ends the session
//        read)
//  1004  frames stopped arriving                   errors.no_frames                 detector stops
//  1007  the liveness check refused the face       errors.liveness_failed           detector pauses (resume)
//  1010  too few pixels across the face (too far)  errors.face_too_far,             guidance, detection goes on
//        or part of it out of the frame (too       errors.face_too_close
//        close)
//  1021  picture not good enough: too dark, too    errors.too_dark, errors.too_     guidance, detection goes on
//        bright, blurred                           bright, errors.blurred
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

/// An error in kZCErrorDomain with the localized text of messageKey.
ZAVO_EXPORT platform::ErrorObjectPtr makeZCError(ZCErrorCode code, const QString& messageKey);

}  // namespace zavo::core
