# Desktop integration and the Debian package. Adds to what `cmake --install` puts under the prefix
# (icons in every hicolor size, AppStream metadata, manuals, shell completion, the package's changelog
# and copyright), and has CPack turn everything `cmake --install` installs into mossly_VERSION_ARCH.deb
# (scripts/package). Included before the subdirectories, so the docs folder is named after the package.

set(MOSSLY_PACKAGE_NAME mossly)
# Debian keeps a package's documents, changelog and copyright in /usr/share/doc/<package>.
set(CMAKE_INSTALL_DOCDIR share/doc/${MOSSLY_PACKAGE_NAME})
include(GNUInstallDirs)

# Hardened programs: the relocation tables are read-only once loaded.
add_link_options(LINKER:-z,relro LINKER:-z,now)

set(MOSSLY_PACKAGE_MAINTAINER "Mossly maintainers <mossly@bellam.com>" CACHE STRING "Maintainer of the Debian package")
set(MOSSLY_PROJECT_LICENSE "LicenseRef-proprietary" CACHE STRING "SPDX expression of Mossly's own licence")
set(MOSSLY_HOMEPAGE_URL "https://bellam.com/mossly" CACHE STRING "Mossly's home page")
set(MOSSLY_SCREENSHOT_BASE_URL "${MOSSLY_HOMEPAGE_URL}/screenshots" CACHE STRING
    "Where software centres fetch the screenshots of docs/ from")
# The date of this version's release, for AppStream and the Debian changelog (which keeps the entry).
set(MOSSLY_RELEASE_DATE 2026-11-24)
set(MOSSLY_RELEASE_DATE_RFC2822 "Tue, 24 Nov 2026 12:00:00 +0000")

set(packaging_source ${PROJECT_SOURCE_DIR}/packaging)
set(packaging_build ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${packaging_build})

# Icons: the desktop picks the size it needs; every size is painted by the window icon's own code.
set(icon_pngs)
foreach(size 16 22 24 32 48 64 128 512)
    set(png ${packaging_build}/icons/${size}x${size}/mossly.png)
    add_custom_command(OUTPUT ${png}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${packaging_build}/icons/${size}x${size}
        COMMAND render_icon ${size} ${png}
        DEPENDS render_icon VERBATIM)
    list(APPEND icon_pngs ${png})
    install(FILES ${png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
endforeach()
install(FILES ${packaging_source}/icons/mossly.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)

configure_file(${packaging_source}/com.bellam.notes.metainfo.xml.in ${packaging_build}/com.bellam.notes.metainfo.xml @ONLY)
install(FILES ${packaging_build}/com.bellam.notes.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)

# The package's own changelog and copyright, where Debian tools look for them.
configure_file(${packaging_source}/debian/changelog.in ${packaging_build}/changelog @ONLY)
configure_file(${packaging_source}/debian/copyright.in ${packaging_build}/copyright @ONLY)
find_program(GZIP_PROGRAM gzip REQUIRED)
add_custom_command(OUTPUT ${packaging_build}/changelog.gz
    COMMAND ${GZIP_PROGRAM} -9nkf ${packaging_build}/changelog
    DEPENDS ${packaging_source}/debian/changelog.in VERBATIM)
install(FILES ${packaging_build}/changelog.gz ${packaging_build}/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Manuals, written by help2man from each program's own --help (with the sections --help leaves out).
find_program(HELP2MAN_PROGRAM help2man)
set(manuals)
if(HELP2MAN_PROGRAM)
    set(mossly_manual_mossly "local-first notes kept as plain files")
    set(mossly_manual_mossly-agent "read, search and edit Mossly notes from the command line")
    set(mossly_manual_mossly-record "record and transcribe a meeting into a Mossly note")
    set(mossly_manual_mossly-link-preview "show the link preview Mossly would fetch")
    set(mossly_manual_mossly-html-page "show an HTML note as Mossly would display it")
    foreach(program mossly mossly-agent mossly-record mossly-link-preview mossly-html-page)
        set(page ${packaging_build}/man/${program}.1)
        set(include_file ${packaging_source}/man/${program}.h2m)
        add_custom_command(OUTPUT ${page}.gz
            COMMAND ${CMAKE_COMMAND} -E make_directory ${packaging_build}/man
            # No display is needed to print the app's usage.
            COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen QTWEBENGINE_DISABLE_SANDBOX=1
                    ${HELP2MAN_PROGRAM} --no-info --no-discard-stderr --section=1
                    --version-string=${PROJECT_VERSION} --name=${mossly_manual_${program}}
                    --include=${include_file} --output=${page} $<TARGET_FILE:${program}>
            COMMAND ${GZIP_PROGRAM} -9nf ${page}
            DEPENDS ${program} ${include_file} VERBATIM)
        list(APPEND manuals ${page}.gz)
        install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    endforeach()
else()
    message(STATUS "help2man not found: no manuals (scripts/bootstrap installs it)")
endif()

# Shell completion for mossly-agent, written by the program from its own command table.
set(bash_completion ${packaging_build}/completion/mossly-agent)
set(zsh_completion ${packaging_build}/completion/_mossly-agent)
add_custom_command(OUTPUT ${bash_completion} ${zsh_completion}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${packaging_build}/completion
    COMMAND sh -c "\"$1\" completion bash > \"$2\" && \"$1\" completion zsh > \"$3\""
            sh $<TARGET_FILE:mossly-agent> ${bash_completion} ${zsh_completion}
    DEPENDS mossly-agent VERBATIM)
install(FILES ${bash_completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${zsh_completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)

add_custom_target(mossly_packaging_files ALL
    DEPENDS ${icon_pngs} ${packaging_build}/changelog.gz ${manuals} ${bash_completion} ${zsh_completion})

# The Debian package: `cpack` in the build tree (scripts/package) installs the project into a staging
# folder, strips the programs and packs it. Library dependencies come from dpkg-shlibdeps; the rest are
# what the app runs or loads without linking to it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${MOSSLY_PACKAGE_NAME})
set(CPACK_PACKAGE_VENDOR Bellam)
set(CPACK_PACKAGE_CONTACT ${MOSSLY_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "local-first notes kept as plain files")
set(CPACK_PACKAGE_DESCRIPTION "Mossly keeps notes as ordinary files in one folder that the user owns:
Markdown with optional front matter, HTML pages and tldraw sketches. It has
instant search, a Markdown editor that styles as you type, locked-down HTML
notes, local meeting transcription, and mossly-agent, through which AI agents
read and edit the same notes safely while the app is open.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 0)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${MOSSLY_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION editors)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${MOSSLY_HOMEPAGE_URL})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# QtWebEngineProcess shows HTML notes and sketches; DejaVu is the text font the app sets. The Granola
# import opens libcurl (with CURLOPT_PROTOCOLS_STR, 7.85) and libsecret when it runs instead of linking
# them, so dpkg-shlibdeps cannot see them.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6webenginecore6-bin, fonts-dejavu-core, libcurl4 (>= 7.85.0), libsecret-1-0")
# Math in notes (STIX), opening links and folders (xdg-open), meeting audio (an audio server).
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-stix, xdg-utils, pipewire-pulse | pulseaudio")
# A keyring keeps the Granola key between sessions.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gnome-keyring")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
