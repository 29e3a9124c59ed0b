# The Debian package: everything `cmake --install` installs. Configure with
# -DCMAKE_INSTALL_PREFIX=/usr for a package that installs under /usr (the units name the
# programs by their installed paths).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME callhome)
set(CPACK_PACKAGE_VENDOR "callhome project")
set(CPACK_PACKAGE_CONTACT "callhome developers <dev@callhome.example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "call-home MIB module for net-snmp agents, with its service")
# cpack puts the summary first and indents these lines as the extended description.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
    "The call-home MIB module (enterprise 32473, subtree 9.300) for net-snmp"
    "agents on Linux: libcallhomemib for snmpd's dlmod, the callhome-agentx"
    "AgentX subagent, the call-home service callhomed with its admin tool"
    "callhomectl, CALLHOME-MIB and hardened systemd units that run as"
    "unprivileged users.")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# Stripped programs and libraries; debug symbols are not shipped.
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1, libsnmp40 (>= 5.9.3), libsqlite3-0 (>= 3.40), libcurl4 (>= 7.88), libsystemd0, snmpd, adduser")

# snmpd's configuration snippet and callhomed's configuration are the administrator's once
# installed.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles
    "${CMAKE_INSTALL_FULL_SYSCONFDIR}/snmp/snmpd.conf.d/callhome.conf\n"
    "${CMAKE_INSTALL_FULL_SYSCONFDIR}/callhome/callhomed.conf\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm
    ${CMAKE_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
