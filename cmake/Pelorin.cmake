# Shared build rules: warnings, sanitizers, and the two helpers every subsystem folder uses.

set(PELORIN_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    -Wcast-align -Woverloaded-virtual -Wno-unused-parameter)
if(PELORIN_WERROR)
  list(APPEND PELORIN_WARNINGS -Werror)
endif()

if(PELORIN_SANITIZE)
  add_compile_options(-fsanitize=${PELORIN_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${PELORIN_SANITIZE})
  if(PELORIN_SANITIZE MATCHES "undefined")
    # Qt 6.4's inline array code hands memcpy a null source when appending nothing; that one
    # check would stop every test that appends an empty string.
    add_compile_options(-fno-sanitize-recover=undefined -fno-sanitize=nonnull-attribute)
  endif()
endif()

# Sanitizer settings every test runs with; TSan's suppressions cover Debian's uninstrumented Qt
# and system libraries only. LSan needs none: a leak is a failure with its report.
set(PELORIN_SANITIZER_ENV "")
if(PELORIN_SANITIZE MATCHES "address")
  list(APPEND PELORIN_SANITIZER_ENV
    "ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0")
endif()
if(PELORIN_SANITIZE MATCHES "undefined")
  list(APPEND PELORIN_SANITIZER_ENV "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
endif()
if(PELORIN_SANITIZE MATCHES "thread")
  list(APPEND PELORIN_SANITIZER_ENV
    "TSAN_OPTIONS=halt_on_error=1:history_size=7:die_after_fork=0:ignore_noninstrumented_modules=1:suppressions=${PROJECT_SOURCE_DIR}/tests/support/tsan.supp")
endif()

# pelorin_add_library(<name> SOURCES ... [LIBS ...])
# One static library per subsystem folder; headers are included as "<folder>/<File>.h".
function(pelorin_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(${name} PRIVATE ${PELORIN_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
endfunction()

# pelorin_add_test(<name> SOURCES ... [LIBS ...] [ENV ...] [LABELS ...] [TIMEOUT s])
# A QtTest executable registered with CTest. Tests run headless and with a private HOME and
# XDG folders and the file secret store, so they never touch the developer's own settings or
# keychain (the keyring tests start a private keyring and ask for it themselves).
function(pelorin_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENV;LABELS" ${ARGN})
  find_package(Qt6 REQUIRED COMPONENTS Test)
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE ${PELORIN_WARNINGS})
  target_link_libraries(${name} PRIVATE Qt6::Test ${ARG_LIBS})
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  # Every test also carries its folder's name (the subsystem) as a label: ctest -L vpn.
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  list(APPEND ARG_LABELS ${folder})
  list(REMOVE_DUPLICATES ARG_LABELS)
  set(home ${CMAKE_BINARY_DIR}/testhome/${name})
  set_tests_properties(${name} PROPERTIES
    TIMEOUT ${ARG_TIMEOUT}
    LABELS "${ARG_LABELS}"
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;PELORIN_SECRET_STORE=file;HOME=${home};XDG_CONFIG_HOME=${home}/.config;XDG_DATA_HOME=${home}/.local/share;XDG_CACHE_HOME=${home}/.cache;XDG_RUNTIME_DIR=${home}/run;PELORIN_SOURCE_DIR=${PROJECT_SOURCE_DIR};PELORIN_BINARY_DIR=${CMAKE_BINARY_DIR};${PELORIN_SANITIZER_ENV};${ARG_ENV}")
  file(MAKE_DIRECTORY ${home}/run)
  file(CHMOD ${home}/run DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endfunction()
