# The places of the packaged service's files. The programs' defaults and the units use them, and a
# test compares the manuals with them.

set(VOCASTRA_CONFIG_FILE "${CMAKE_INSTALL_FULL_SYSCONFDIR}/vocastra/vocastra.conf"
  CACHE STRING "Configuration")
set(VOCASTRA_GLOSSARY_FILE "${CMAKE_INSTALL_FULL_SYSCONFDIR}/vocastra/glossary.xml"
  CACHE STRING "Glossary")
set(VOCASTRA_KEEP_DIR "/var/lib/vocastra" CACHE STRING "Last usable configuration and glossary")
set(VOCASTRA_RUN_DIR "/run/vocastra" CACHE STRING "Files of the running service")
# A separate directory, as the desk's service must not read that of the configuration.
set(VOCASTRA_DESK_CONFIG_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/vocastra-desk"
  CACHE STRING "Users and templates of the desk")
set(VOCASTRA_DESK_STATE_DIR "/var/lib/vocastra-desk" CACHE STRING "History of the desk")

# Below the run directory.
set(VOCASTRA_OUT_DIR "${VOCASTRA_RUN_DIR}/out")
set(VOCASTRA_STATUS_FILE "${VOCASTRA_RUN_DIR}/status.xml")
set(VOCASTRA_DIRECTORIES_FILE "${VOCASTRA_RUN_DIR}/directories.xml")
set(VOCASTRA_HEALTH_FILE "${VOCASTRA_RUN_DIR}/health")
set(VOCASTRA_PLAYER_FILE "${VOCASTRA_RUN_DIR}/player")
set(VOCASTRA_APPLY_SOCKET "${VOCASTRA_RUN_DIR}/apply")
set(VOCASTRA_CHECKED_CONFIG_FILE "${VOCASTRA_RUN_DIR}/vocastra.conf")
set(VOCASTRA_CHECKED_GLOSSARY_FILE "${VOCASTRA_RUN_DIR}/glossary.xml")
