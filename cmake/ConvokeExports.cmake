# The export list of libConvoke, generated from the headers so that it cannot drift from them.
#
# Every declaration marked CONVOKE_API in the given headers is exported, and nothing else:
#   - a function with C linkage (inside extern "C" { ... } or declared extern "C") by its name;
#   - a function with C++ linkage by its mangled name with any parameters (overloads included),
#     at global scope or in namespace kt;
#   - a class or struct declared at the top level of a header (global scope or namespace kt) with
#     its members, its type information (name included) and its virtual table, and those of the
#     classes nested in it.
# Declarations are read one line at a time: the macro, the return type and the name share a line,
# and a top-level class starts in column 0 (clang-format keeps both true).
#
# Outputs: a GNU ld version script (Linux) and an ld64 exported-symbols list (macOS), made from the
# same patterns. The patterns are mangled-name globs: GNU ld globs only unquoted patterns, and an
# unquoted pattern cannot spell a demangled C++ signature.

# Mangled source name of an operator, or empty when the name is not an operator we map.
function(_convoke_operator_code name out)
  set(codes "<<=ls" ">>=rs" "===eq" "!==ne" "<==le" ">==ge" "<=lt" ">=gt" "+=pl" "-=mi" "*=ml"
            "/=dv" "%=rm" "&=an" "|=or" "^=eo" "!=nt" "~=co")
  set(result "")
  foreach(entry IN LISTS codes)
    string(REGEX MATCH "^(.+)=([a-z][a-z])$" _ "${entry}")
    if(name STREQUAL CMAKE_MATCH_1)
      set(result "${CMAKE_MATCH_2}")
      break()
    endif()
  endforeach()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

# <length><name>, the mangled form of one identifier.
function(_convoke_source_name name out)
  string(LENGTH "${name}" length)
  set(${out} "${length}${name}" PARENT_SCOPE)
endfunction()

# Reads the headers and returns two lists: C names and mangled-name glob patterns.
function(convoke_export_patterns out_c out_cxx)
  set(c_names "")
  set(patterns "")
  foreach(header IN LISTS ARGN)
    # One list element per line: brackets and semicolons would otherwise join or split lines.
    file(READ "${header}" text)
    string(REGEX REPLACE "[][;]" "_" text "${text}")
    string(REPLACE "\n" ";" lines "${text}")
    set(in_c OFF)
    set(namespace "")
    foreach(line IN LISTS lines)
      if(line MATCHES "^extern \"C\" {")
        set(in_c ON)
      elseif(line MATCHES "^} */[*/] *extern \"C\"")
        set(in_c OFF)
      elseif(line MATCHES "^namespace ([A-Za-z_][A-Za-z0-9_]*) {")
        set(namespace "${CMAKE_MATCH_1}")
      elseif(line MATCHES "^}( *//.*)?$")
        set(namespace "")
      endif()
      if(NOT line MATCHES "CONVOKE_API" OR line MATCHES "^ *(#|//|/\\*|\\*)")
        continue()
      endif()
      if(namespace STREQUAL "")
        set(scope "")
      elseif(namespace STREQUAL "kt")
        set(scope "2kt")
      else()
        message(FATAL_ERROR "${header}: exports in namespace ${namespace} are not supported")
      endif()

      if(line MATCHES "^(class|struct) CONVOKE_API ([A-Za-z_][A-Za-z0-9_]*)")
        _convoke_source_name("${CMAKE_MATCH_2}" class)
        set(qualified "${scope}${class}")
        list(APPEND patterns "_ZN${qualified}*" "_ZNK${qualified}*")
        foreach(kind TI TS TV)
          if(scope STREQUAL "")
            list(APPEND patterns "_Z${kind}${qualified}")
          endif()
          list(APPEND patterns "_Z${kind}N${qualified}*")
        endforeach()
      elseif(line MATCHES "^ +(class|struct) CONVOKE_API")
        # Nested in an exported class: covered by the enclosing class's patterns.
      elseif(line MATCHES "operator *([^ (]+) *\\(")
        _convoke_operator_code("${CMAKE_MATCH_1}" code)
        if(code STREQUAL "")
          message(FATAL_ERROR "${header}: no mangled name for operator${CMAKE_MATCH_1}")
        endif()
        if(scope STREQUAL "")
          list(APPEND patterns "_Z${code}*")
        else()
          list(APPEND patterns "_ZN${scope}${code}*")
        endif()
      elseif(line MATCHES "([A-Za-z_][A-Za-z0-9_]*) *\\(")
        set(name "${CMAKE_MATCH_1}")
        if(in_c OR line MATCHES "extern \"C\"")
          list(APPEND c_names "${name}")
        else()
          _convoke_source_name("${name}" mangled)
          if(scope STREQUAL "")
            list(APPEND patterns "_Z${mangled}*")
          else()
            list(APPEND patterns "_ZN${scope}${mangled}*")
          endif()
        endif()
      else()
        message(FATAL_ERROR "${header}: cannot read the exported declaration: ${line}")
      endif()
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES c_names)
  list(REMOVE_DUPLICATES patterns)
  set(${out_c} "${c_names}" PARENT_SCOPE)
  set(${out_cxx} "${patterns}" PARENT_SCOPE)
endfunction()

# convoke_generate_exports(VERSION_SCRIPT <file> EXPORTED_SYMBOLS_LIST <file> HEADERS <header>...)
# Writes both lists (only when their text changes) and re-runs the configuration when a header
# changes.
function(convoke_generate_exports)
  cmake_parse_arguments(arg "" "VERSION_SCRIPT;EXPORTED_SYMBOLS_LIST" "HEADERS" ${ARGN})
  convoke_export_patterns(c_names patterns ${arg_HEADERS})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${arg_HEADERS})

  set(script "/* Generated from the CONVOKE_API declarations of the public headers; do not edit. */\n")
  string(APPEND script "{\n  global:\n")
  set(apple "")
  foreach(name IN LISTS c_names patterns)
    string(APPEND script "    ${name};\n")
    string(APPEND apple "_${name}\n")
  endforeach()
  string(APPEND script "  local: *;\n};\n")
  file(CONFIGURE OUTPUT "${arg_VERSION_SCRIPT}" CONTENT "${script}" @ONLY)
  file(CONFIGURE OUTPUT "${arg_EXPORTED_SYMBOLS_LIST}" CONTENT "${apple}" @ONLY)
endfunction()
