# SPDX-License-Identifier: MIT
# install.cmake: where files are installed, and how to install a file that names such a place.
#
# All places are below the prefix, except with the prefix /usr: /etc and the system's units are not in /usr. A
# relative directory is below the prefix; an absolute one is used unchanged.
include(GNUInstallDirs)
set(CORVANE_UNIT_DIR "" CACHE STRING "Systemd units; empty: the system's directory, or below the prefix")
set(CORVANE_TMPFILES_DIR lib/tmpfiles.d CACHE STRING "Directories that systemd makes at boot")
set(CORVANE_INIT_DIR ${CMAKE_INSTALL_SYSCONFDIR}/init.d CACHE STRING "Init scripts")
set(CORVANE_LOGROTATE_DIR ${CMAKE_INSTALL_SYSCONFDIR}/logrotate.d CACHE STRING "Snippets of logrotate")
mark_as_advanced(CORVANE_UNIT_DIR CORVANE_TMPFILES_DIR CORVANE_INIT_DIR CORVANE_LOGROTATE_DIR)

pkg_get_variable(corvane_system_unit_dir systemd systemdsystemunitdir)
if(NOT corvane_system_unit_dir)
  set(corvane_system_unit_dir /lib/systemd/system)
endif()

# install_template(TEMPLATE FILE [PERMISSION...]): installs TEMPLATE.in as FILE. Both may name the places of
# install-template.cmake.in, as @PLACE@. The installation replaces them, because `cmake --install` can change
# the prefix. PERMISSIONs, as for install(), are added to a file's usual ones.
function(install_template template file)
  set(permissions ${ARGN})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/install-template.cmake.in install-${template}.cmake @ONLY)
  install(SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/install-${template}.cmake)
endfunction()
