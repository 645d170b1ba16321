# Debian packages by CPack, one a component: each shared library, what a program
# is built with, and the command. Configure with the prefix /usr.
#     cpack --config BUILD/CPackConfig.cmake
set(library_package libmediafiles${PROJECT_VERSION_MAJOR})
set(recorder_package libmediafiles-recorder0)
set(CPACK_COMPONENTS_ALL runtime dev recorder recorder-dev)
if(TARGET mediafiles-repair)
    list(APPEND CPACK_COMPONENTS_ALL repair)
endif()
if(TARGET mediafiles-command)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET mediafiles-gstreamer)
    list(APPEND CPACK_COMPONENTS_ALL gstreamer)
endif()
# The page is made by a build of its own (make web).
set(MEDIAFILES_PAGE "" CACHE FILEPATH "The page that repairs in a browser, for its package")
if(MEDIAFILES_PAGE)
    list(APPEND CPACK_COMPONENTS_ALL page)
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmediafiles-dev)
set(CPACK_DEBIAN_RECORDER_PACKAGE_NAME ${recorder_package})
set(CPACK_DEBIAN_RECORDER-DEV_PACKAGE_NAME libmediafiles-recorder-dev)
set(CPACK_DEBIAN_REPAIR_PACKAGE_NAME mediafiles-repair)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME mediafiles-tools)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-mediafiles)
set(CPACK_DEBIAN_PAGE_PACKAGE_NAME mediafiles-repair-page)

# What Debian requires beside the files: the licence in its format, the changelog and the manual page compressed.
set(work ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${work})
file(READ ${PROJECT_SOURCE_DIR}/LICENSE text)
string(REGEX MATCH "Copyright[^\n]*" copyright "${text}")
string(REPLACE "Copyright (c)" "Copyright:" copyright "${copyright}")
string(REGEX MATCH "Permission.*[^\n]" license "${text}")
string(REPLACE "\n" "\n " license " ${license}")
string(REPLACE "\n \n" "\n .\n" license "${license}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in ${work}/copyright @ONLY)
file(WRITE ${work}/shlibs "libmediafiles ${PROJECT_VERSION_MAJOR} ${library_package} (>= ${PROJECT_VERSION})\n")
file(WRITE ${work}/recorder/shlibs "libmediafiles-recorder 0 ${recorder_package} (>= ${PROJECT_VERSION})\n")
file(COPY ${PROJECT_SOURCE_DIR}/packaging/triggers DESTINATION ${work})
foreach(page packaging/changelog docs/mediafiles.1 docs/mediafiles-repair.1)
    get_filename_component(name ${page} NAME)
    execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${page} OUTPUT_FILE ${work}/${name}.gz
        COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${page})
endforeach()
foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER ${component} upper)
    install(FILES ${work}/copyright ${work}/changelog.gz COMPONENT ${component} EXCLUDE_FROM_ALL
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
endforeach()
install(DIRECTORY examples docs COMPONENT dev EXCLUDE_FROM_ALL DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libmediafiles-dev
    FILES_MATCHING PATTERN *.c PATTERN *.md PATTERN recover.c EXCLUDE PATTERN dashcam.c EXCLUDE)
install(FILES examples/dashcam.c examples/dashcam.cpp examples/recover.c COMPONENT recorder-dev EXCLUDE_FROM_ALL
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libmediafiles-recorder-dev/examples)
install(FILES docs/gstreamer.md COMPONENT gstreamer EXCLUDE_FROM_ALL
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/gstreamer1.0-mediafiles)
install(FILES ${work}/mediafiles.1.gz COMPONENT tools EXCLUDE_FROM_ALL DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${work}/mediafiles-repair.1.gz COMPONENT repair EXCLUDE_FROM_ALL DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
if(MEDIAFILES_PAGE)
    install(FILES ${MEDIAFILES_PAGE} COMPONENT page EXCLUDE_FROM_ALL
        DESTINATION ${CMAKE_INSTALL_DATADIR}/mediafiles-repair-page)
    set(page_doc ${CMAKE_INSTALL_DATADIR}/doc/mediafiles-repair-page)
    install(FILES docs/browser.md COMPONENT page EXCLUDE_FROM_ALL DESTINATION ${page_doc})
    # The licences of what is compiled into it.
    foreach(part wasi-libc libc++-16-dev-wasm32)
        install(FILES /usr/share/doc/${part}/copyright RENAME copyright.${part} COMPONENT page EXCLUDE_FROM_ALL
            DESTINATION ${page_doc})
    endforeach()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_NAME libmediafiles)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/changelog signature REGEX "^ -- ")
string(REGEX REPLACE "^ -- (.*>).*" "\\1" CPACK_DEBIAN_PACKAGE_MAINTAINER "${signature}")

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "recorder of MP4 files that survive a power cut")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "libmediafiles writes encoded video and audio into MP4 files as it arrives\n\
and keeps a journal beside them, from which a recording that was cut off is\ncompleted without reading the media.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "${CPACK_COMPONENT_RUNTIME_DESCRIPTION}\n.\n\
This package has the headers, the static library and examples.")
set(CPACK_COMPONENT_RECORDER_DESCRIPTION "libmediafiles-recorder makes a directory of MP4 files of frames\n\
It keeps a quota, outlasts a card that stalls, and brings recordings back that\na power cut has interrupted; a cut during the repair does no harm.")
set(CPACK_COMPONENT_RECORDER-DEV_DESCRIPTION "${CPACK_COMPONENT_RECORDER_DESCRIPTION}\n.\n\
This package has the headers, the static library and examples.")
set(CPACK_COMPONENT_REPAIR_DESCRIPTION "mediafiles-repair brings recordings back that were cut off\n\
It decides what is kept of a recording and its journal, and repairs files and\nwhole cards, so that a power cut during the repair does no harm.\n.\n\
This package has the program, for devices; the command of mediafiles-tools has\nit as well.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${CPACK_COMPONENT_RUNTIME_DESCRIPTION}\n.\n\
This package has the command, which records what libavformat opens and\nrepairs files and whole cards.")
set(CPACK_COMPONENT_GSTREAMER_DESCRIPTION "GStreamer element that records MP4 files which survive a power cut\n\
mediafilessink takes H.264, H.265 and AAC and makes a directory of MP4 files of\nthem. It stands where a pipeline has \
splitmuxsink, and brings back what was cut\noff before.")
set(CPACK_COMPONENT_PAGE_DESCRIPTION "page that repairs recordings in a browser\n\
One HTML file that works from disk: a recording that was cut off, or a whole\ncard, is repaired, played and saved \
without anything leaving the machine.\n.\nOpen /usr/share/mediafiles-repair-page/mediafiles-repair.html.")
set(CPACK_DEBIAN_PAGE_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PAGE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_RECORDER_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RECORDER-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_REPAIR_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/service/postinst)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${work}/shlibs;${work}/triggers")
set(CPACK_DEBIAN_RECORDER_PACKAGE_CONTROL_EXTRA "${work}/recorder/shlibs;${work}/triggers")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RECORDER_PACKAGE_DEPENDS "${library_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RECORDER-DEV_PACKAGE_DEPENDS
    "${recorder_package} (= ${PROJECT_VERSION}), libmediafiles-dev (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_REPAIR_PACKAGE_DEPENDS "${recorder_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${library_package} (>= ${PROJECT_VERSION}), ${recorder_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_DEPENDS "${recorder_package} (>= ${PROJECT_VERSION})")
if(CMAKE_CROSSCOMPILING)
    # dpkg-shlibdeps finds the libraries of the host only.
    string(REGEX REPLACE "^arm$" "armhf" CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${CMAKE_SYSTEM_PROCESSOR}")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.33)")
    foreach(component RECORDER REPAIR)
        string(APPEND CPACK_DEBIAN_${component}_PACKAGE_DEPENDS ", libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12)")
    endforeach()
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/recorder)
endif()
include(CPack)
