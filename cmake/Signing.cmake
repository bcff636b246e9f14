# Who counts as a genuine client: programs signed by one key, whose public half (the anchor) is compiled into the helper.
# Without a release's anchor the first configure makes a key of its own in the build tree, and the build signs with it.
# With one the build signs nothing: the release's private key does, as the last step of packaging.
set(QUILLMARK_ANCHOR "" CACHE STRING "Public key of the release that signs clients, 64 hexadecimal digits; empty for a key of this build")
set(QUILLMARK_TEAM "R4MTZ8KP2C")

if(QUILLMARK_ANCHOR)
  set(QUILLMARK_ANCHOR_DIGITS ${QUILLMARK_ANCHOR})
  set(QUILLMARK_SIGNING_KEY "")
else()
  set(QUILLMARK_SIGNING_KEY ${CMAKE_BINARY_DIR}/signing/local-key.pem)
  find_program(QUILLMARK_OPENSSL openssl REQUIRED)
  if(NOT EXISTS ${QUILLMARK_SIGNING_KEY})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/signing)
    file(CHMOD ${CMAKE_BINARY_DIR}/signing DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    # openssl(1) makes key files that their owner alone can read.
    execute_process(COMMAND ${QUILLMARK_OPENSSL} genpkey -algorithm ed25519 -out ${QUILLMARK_SIGNING_KEY}
      COMMAND_ERROR_IS_FATAL ANY)
  endif()
  set(public ${CMAKE_BINARY_DIR}/signing/local-key.der)
  execute_process(COMMAND ${QUILLMARK_OPENSSL} pkey -in ${QUILLMARK_SIGNING_KEY} -pubout -outform DER -out ${public}
    COMMAND_ERROR_IS_FATAL ANY)
  # The raw key is the end of its DER form (RFC 8410).
  file(READ ${public} digits HEX)
  string(REGEX MATCH "................................................................$" QUILLMARK_ANCHOR_DIGITS "${digits}")
endif()
if(NOT QUILLMARK_ANCHOR_DIGITS MATCHES "^[0-9a-f]+$")
  message(FATAL_ERROR "QUILLMARK_ANCHOR has to be 64 hexadecimal digits in lower case")
endif()
string(LENGTH ${QUILLMARK_ANCHOR_DIGITS} length)
if(NOT length EQUAL 64)
  message(FATAL_ERROR "QUILLMARK_ANCHOR has to be 64 hexadecimal digits in lower case")
endif()

# qm_client(<program> <identifier>): the program carries a client's note, and is signed when the build has a key.
function(qm_client name identifier)
  set(note ${CMAKE_SOURCE_DIR}/src/platform/linux/identity/ClientNote.cpp)
  add_library(${name}_note OBJECT ${note})
  target_compile_definitions(${name}_note PRIVATE QUILLMARK_IDENTIFIER="${identifier}" QUILLMARK_TEAM="${QUILLMARK_TEAM}")
  target_sources(${name} PRIVATE $<TARGET_OBJECTS:${name}_note>)
  if(QUILLMARK_SIGNING_KEY)
    add_dependencies(${name} codesign)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${QUILLMARK_SIGNING_KEY} $<TARGET_FILE:codesign>)
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND codesign --key ${QUILLMARK_SIGNING_KEY} $<TARGET_FILE:${name}> VERBATIM)
  endif()
endfunction()
