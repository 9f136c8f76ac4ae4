# Sets MENDLINE_JNI_INCLUDE_DIRS to the folders of jni.h and jni_md.h.
#
# Only headers are needed, from whichever JDK is there. CMake's own FindJNI also wants the JVM's
# libraries and a default JDK; a build host may have several JDKs and no default among them.
file(GLOB mendline_jdk_include_dirs LIST_DIRECTORIES true /usr/lib/jvm/*/include)
find_path(MENDLINE_JNI_H jni.h
  HINTS $ENV{JAVA_HOME}/include
  PATHS ${mendline_jdk_include_dirs})
find_path(MENDLINE_JNI_MD_H jni_md.h
  HINTS ${MENDLINE_JNI_H}/linux ${MENDLINE_JNI_H})
mark_as_advanced(MENDLINE_JNI_H MENDLINE_JNI_MD_H)
if(NOT MENDLINE_JNI_H OR NOT MENDLINE_JNI_MD_H)
  message(FATAL_ERROR "No JNI headers found. Install a JDK (Debian: openjdk-17-jdk-headless) "
                      "or set JAVA_HOME.")
endif()
set(MENDLINE_JNI_INCLUDE_DIRS ${MENDLINE_JNI_H} ${MENDLINE_JNI_MD_H})
