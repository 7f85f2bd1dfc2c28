# Manual pages, where pandoc is there: made of the documents and of the public headers, so that
# nothing is said in two places.
find_program(PANDOC pandoc)
find_package(Python3 COMPONENTS Interpreter)
if(NOT PANDOC OR NOT Python3_FOUND)
  message(STATUS "no pandoc or no python3: the manual pages are left out")
  return()
endif()

set(ZORV_MANUAL_DIR ${PROJECT_BINARY_DIR}/man)
set(ZORV_MANUAL_PAGES)
string(TIMESTAMP ZORV_MANUAL_DATE %Y-%m-%d UTC)  # SOURCE_DATE_EPOCH, where that is set

# zorv_page(NAME SECTION SOURCE...): one page from Markdown files, one after the other.
function(zorv_page name section)
  string(REPLACE "ZorvBtrfsUsage::" "" file ${name})
  set(page ${ZORV_MANUAL_DIR}/${file}.${section})
  add_custom_command(OUTPUT ${page}
    COMMAND ${PANDOC} --from=markdown-smart --to=man --standalone
      --lua-filter=docs/man/page.lua --metadata=title=${name} --metadata=section=${section}
      --metadata=date=${ZORV_MANUAL_DATE} --metadata=footer=zorvbtrfssnapusage\ ${PROJECT_VERSION} --metadata=hyphenate=false
      --variable=header-includes=.ad\ l --output=${page} ${ARGN}
    DEPENDS docs/man/page.lua ${ARGN} examples/caller.cc
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
  set(ZORV_MANUAL_PAGES ${ZORV_MANUAL_PAGES} ${page} PARENT_SCOPE)
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    RENAME ${name}.${section})
endfunction()

# zorv_header_text(HEADER): the Markdown that class_page.py makes of a public header.
function(zorv_header_text header)
  set(text ${ZORV_MANUAL_DIR}/${header}.md)
  set(source include/zorvbtrfssnapusage/${header}.h)
  add_custom_command(OUTPUT ${text}
    COMMAND Python3::Interpreter docs/man/class_page.py ${source} ${text}
    DEPENDS docs/man/class_page.py ${source}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
endfunction()

file(MAKE_DIRECTORY ${ZORV_MANUAL_DIR})
# The program's own help, so it has to run here: a build for another machine leaves the options out.
set(options)
if(NOT CMAKE_CROSSCOMPILING)
  set(options ${ZORV_MANUAL_DIR}/options.md)
  add_custom_command(OUTPUT ${options}
    COMMAND Python3::Interpreter docs/man/options_page.py $<TARGET_FILE:zorv-snapusage> ${options}
    DEPENDS docs/man/options_page.py zorv-snapusage
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
endif()
zorv_page(zorv-snapusage 8 docs/man/zorv-snapusage.8.md docs/zorv-snapusage.md ${options}
  docs/man/zorv-snapusage.8.end.md)
zorv_page(zorv-snapusage.conf 5 docs/man/zorv-snapusage.conf.5.md docs/sources.md
  docs/man/zorv-snapusage.conf.5.end.md)
zorv_page(btrfs-subvolume-size 8 docs/man/btrfs-subvolume-size.8.md)
zorv_page(zorvbtrfssnapusage 5 docs/man/zorvbtrfssnapusage.5.md docs/file-formats.md
  docs/man/zorvbtrfssnapusage.5.end.md)

zorv_header_text(types)
zorv_page(zorvbtrfssnapusage 3 docs/man/zorvbtrfssnapusage.3.md ${ZORV_MANUAL_DIR}/types.md
  docs/man/zorvbtrfssnapusage.3.end.md)
foreach(header_and_class
    btrfs_tool:BtrfsTool share_snap_usage_cal:ShareSnapUsageCal share_task_status:ShareTaskStatus
    signal_handler:SignalHandler snap_usage_cal:SnapUsageCalculator task_result:TaskResult
    task_status:TaskStatus utils:Utils)
  string(REPLACE ":" ";" pair ${header_and_class})
  list(GET pair 0 header)
  list(GET pair 1 class)
  zorv_header_text(${header})
  zorv_page(ZorvBtrfsUsage::${class} 3 ${ZORV_MANUAL_DIR}/${header}.md)
endforeach()

add_custom_target(manual ALL DEPENDS ${ZORV_MANUAL_PAGES})
