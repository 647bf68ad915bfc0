# ctest runs the Windows programs under Wine: quietly, in a Wine prefix of this build's own
# (created once, by the build, so that parallel tests never race to create it), and finding
# the SDK's and MinGW's DLLs in bin/ from whatever folder a program runs in.
set(QOR_WINEPREFIX ${CMAKE_BINARY_DIR}/wine-prefix)
set(QOR_WINE_ENV WINEDEBUG=-all WINEPREFIX=${QOR_WINEPREFIX} WINEPATH=Z:${QOR_OUTPUT_DIR})
set(QOR_WINE ${CMAKE_CROSSCOMPILING_EMULATOR})
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_COMMAND} -E env ${QOR_WINE_ENV} ${QOR_WINE})
add_custom_command(OUTPUT ${QOR_WINEPREFIX}/system.reg
  COMMAND ${CMAKE_COMMAND} -E env ${QOR_WINE_ENV} ${QOR_WINE} wineboot --init
  COMMENT "Creating the Wine prefix")
add_custom_target(wine_prefix ALL DEPENDS ${QOR_WINEPREFIX}/system.reg)
