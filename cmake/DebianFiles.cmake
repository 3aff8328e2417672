# SPDX-License-Identifier: Apache-2.0

# Run by cpack between installing the components into folders of their own and making packages of
# them: adds what only Debian asks for, and finds what each package depends on.
#
# cpack could find the dependencies itself, but knows no shlibs of packages that it is about to make,
# and adds maintainer scripts that call ldconfig where Debian uses a trigger.

set(work ${CPACK_VIDEOSTABILIZER_WORK_DIR})
set(version ${CPACK_VIDEOSTABILIZER_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(maintainer "${CPACK_PACKAGE_CONTACT}")
set(input ${CPACK_VIDEOSTABILIZER_SOURCE_DIR}/packaging/debian)
file(MAKE_DIRECTORY ${work}/debian)

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${work} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# SOURCE_DATE_EPOCH where that is set, otherwise now.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${input}/changelog.in ${work}/changelog.Debian @ONLY)
configure_file(${CPACK_VIDEOSTABILIZER_SOURCE_DIR}/CHANGELOG.md ${work}/changelog COPYONLY)

# The dependency of a package whose binaries link the library: of stabilize-video, and by the control
# file `shlibs` of packages that others make.
set(library_package ${CPACK_DEBIAN_VIDEOSTABILIZER_LIBRARY_PACKAGE_NAME})
file(WRITE ${work}/shlibs "libvideostabilizer ${CPACK_VIDEOSTABILIZER_SONAME_VERSION} \
${library_package} (>= ${CPACK_VIDEOSTABILIZER_VERSION})\n")
file(WRITE ${work}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_VIDEOSTABILIZER_LIBRARY_PACKAGE_CONTROL_EXTRA ${work}/shlibs ${work}/triggers)
file(WRITE ${work}/debian/control "")  # dpkg-shlibdeps asks for one
configure_file(${work}/shlibs ${work}/debian/shlibs.local COPYONLY)
file(GLOB library_file
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/videostabilizer_library/usr/lib/*/libvideostabilizer.so.*.*)
if(NOT library_file)
  message(FATAL_ERROR "Debian packages are made of a build for /usr: use the preset `package`")
endif()
get_filename_component(library_folder ${library_file} DIRECTORY)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  set(package ${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
  set(staged ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component})

  set(doc ${staged}/usr/share/doc/${package})
  file(COPY ${input}/copyright ${work}/changelog ${work}/changelog.Debian DESTINATION ${doc}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages ${staged}/usr/share/man/man*/*)
  run(gzip -9 --no-name --force ${doc}/changelog ${doc}/changelog.Debian ${pages})

  file(GLOB binaries ${staged}/usr/bin/* ${staged}/usr/lib/*/*.so.*.*
    ${staged}/usr/lib/*/gstreamer-1.0/*.so ${staged}/usr/lib/*/obs-plugins/*.so)
  if(binaries)
    run(${CPACK_VIDEOSTABILIZER_STRIP} --strip-unneeded --remove-section=.comment
      --remove-section=.note ${binaries})
    file(MAKE_DIRECTORY ${staged}/DEBIAN)  # marks the root of a package for dpkg-shlibdeps
    execute_process(COMMAND dpkg-shlibdeps -O -l${library_folder} ${binaries}
      WORKING_DIRECTORY ${work} OUTPUT_VARIABLE depends OUTPUT_STRIP_TRAILING_WHITESPACE
      COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${staged}/DEBIAN)
    string(REPLACE "shlibs:Depends=" "" depends "${depends}")
    list(APPEND depends ${CPACK_DEBIAN_${COMPONENT}_PACKAGE_DEPENDS})
    list(JOIN depends ", " CPACK_DEBIAN_${COMPONENT}_PACKAGE_DEPENDS)
  endif()
endforeach()

# Java VMs load the library by its name without a version, which only the development files have, and
# look for it in the folder jni.
set(staged ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/videostabilizer_java)
if(EXISTS ${staged})
  get_filename_component(multiarch ${library_folder} NAME)
  set(jni ${staged}/usr/lib/${multiarch}/jni)
  file(MAKE_DIRECTORY ${jni})
  file(CREATE_LINK ../libvideostabilizer.so.${CPACK_VIDEOSTABILIZER_SONAME_VERSION}
    ${jni}/libvideostabilizer.so SYMBOLIC)
endif()
