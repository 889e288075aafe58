# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# expose_headers(TARGET SCOPE FOLDER): lets a target, and with SCOPE PUBLIC or INTERFACE also what links
# it, include the headers of one folder of the sources, by their paths from the top: "FOLDER/x.h". No
# other folder can be included that way: what a target does not link, it cannot include.
function(expose_headers target scope folder)
    set(root ${PROJECT_BINARY_DIR}/headers/${target})
    cmake_path(GET folder PARENT_PATH parent)
    file(MAKE_DIRECTORY ${root}/${parent})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${root}/${folder} SYMBOLIC)
    target_include_directories(${target} ${scope} $<BUILD_INTERFACE:${root}>)
endfunction()
