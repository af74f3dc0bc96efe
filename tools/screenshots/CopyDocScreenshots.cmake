# One screenshot of each dialog kind, per dpi and language, from the full set
# (FROM) into the documentation (TO).
set(kinds pin0 pin2-keyboard simple-pin5-keyboard retry-3 message-PIN_Locked list
          waiting2-countdown)
foreach(dpi 96dpi 192dpi)
  foreach(lang en zh_CN zh_TW)
    file(MAKE_DIRECTORY ${TO}/${dpi}/${lang})
    foreach(kind ${kinds})
      if(NOT EXISTS ${FROM}/${dpi}/${lang}/${kind}.png)
        message(FATAL_ERROR "missing screenshot ${dpi}/${lang}/${kind}.png")
      endif()
      file(COPY ${FROM}/${dpi}/${lang}/${kind}.png DESTINATION ${TO}/${dpi}/${lang})
    endforeach()
  endforeach()
endforeach()
