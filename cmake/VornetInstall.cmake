# Installs what comes beside the programs and plug-ins.
install(FILES docs/man/vornet-vi.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
install(FILES docs/man/VornetVIExt.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8")
install(FILES tools/completions/vornet-vi.bash RENAME vornet-vi
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
install(FILES tools/completions/vornet-vi.zsh RENAME _vornet-vi DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions")
install(FILES tools/completions/vornet-vi.fish DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")

# What a software centre shows of each plug-in: vornet_metainfo(MANAGER TARGET ID…), where IDs are those of the file manager.
function(vornet_metainfo manager target)
  if(NOT TARGET ${target})
    return()
  endif()
  string(TOLOWER ${manager} program)
  list(JOIN ARGN "</extends>\n  <extends>" extended)
  set(gives "badges on the files of a synced folder, and adds actions to the context menu")
  if(manager STREQUAL "Thunar")
    set(gives "the actions of a sync application in the context menu")
  endif()
  set(metainfo "${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_DATADIR}/metainfo/com.vornet.KelvaneSync.${program}.metainfo.xml")
  configure_file(resources/plugin.metainfo.xml.in "${metainfo}" @ONLY)
  install(FILES "${metainfo}" DESTINATION "${CMAKE_INSTALL_DATADIR}/metainfo")
endfunction()
vornet_metainfo(Nautilus vornet-nautilus org.gnome.Nautilus org.gnome.Nautilus.desktop)
vornet_metainfo(Nemo vornet-nemo nemo.desktop)
vornet_metainfo(Caja vornet-caja caja.desktop)
vornet_metainfo(Dolphin vornet_dolphin_overlay org.kde.dolphin.desktop)
vornet_metainfo(Thunar vornet-thunar org.xfce.thunar)

# The demonstration, for packages: cmake --install --component demo.
install(FILES docs/man/kelvane-sim.1 docs/man/vornet-vi-demo.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
  COMPONENT demo EXCLUDE_FROM_ALL)
install(PROGRAMS script/run DESTINATION "${CMAKE_INSTALL_DATADIR}/vornet-vi-demo" RENAME vornet-vi-demo
  COMPONENT demo EXCLUDE_FROM_ALL)
install(PROGRAMS script/wrap-lines DESTINATION "${CMAKE_INSTALL_DATADIR}/vornet-vi-demo" COMPONENT demo EXCLUDE_FROM_ALL)
install(FILES script/run-desktop.bash DESTINATION "${CMAKE_INSTALL_DATADIR}/vornet-vi-demo"
  COMPONENT demo EXCLUDE_FROM_ALL)
