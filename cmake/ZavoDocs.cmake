# API documentation from the public headers: `cmake --build build --target docs`
# writes build/docs/html/index.html. Private headers (*_p.h) stay out.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
  return()
endif()
set(DOXYGEN_PROJECT_NAME ZavoCamera)
set(DOXYGEN_PROJECT_BRIEF "Face-capture camera component for Qt 6 applications")
set(DOXYGEN_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/docs)
set(DOXYGEN_FILE_PATTERNS *.h *.md)
set(DOXYGEN_EXCLUDE_PATTERNS *_p.h */build*/*)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/README.md)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_EXTRACT_ALL YES)
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_WARN_AS_ERROR NO)
set(DOXYGEN_WARN_LOGFILE ${CMAKE_BINARY_DIR}/docs/warnings.log)
doxygen_add_docs(docs
  ${PROJECT_SOURCE_DIR}/README.md
  ${PROJECT_SOURCE_DIR}/docs/ARCHITECTURE.md
  ${PROJECT_SOURCE_DIR}/camera-screen
  ${PROJECT_SOURCE_DIR}/resources
  ${PROJECT_SOURCE_DIR}/capture
  ${PROJECT_SOURCE_DIR}/recording
  ${PROJECT_SOURCE_DIR}/ui
  ${PROJECT_SOURCE_DIR}/zavocore
  ${PROJECT_SOURCE_DIR}/zavoweb
  ${PROJECT_SOURCE_DIR}/shell
  ${PROJECT_SOURCE_DIR}/camera
  ${PROJECT_SOURCE_DIR}/media
  ${PROJECT_SOURCE_DIR}/base
  COMMENT "API documentation with Doxygen")
