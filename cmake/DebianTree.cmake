# Run by cpack on the tree that goes into the Debian package: what Debian wants otherwise than an
# installation from source has it.
set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr)
set(doc ${usr}/share/doc/dorado)

# zsh looks for the completions of packages here.
file(MAKE_DIRECTORY ${usr}/share/zsh/vendor-completions)
file(RENAME ${usr}/share/zsh/site-functions/_rvpmap ${usr}/share/zsh/vendor-completions/_rvpmap)
file(REMOVE_RECURSE ${usr}/share/zsh/site-functions)

# The notices of the header libraries that are compiled into the tool.
foreach(package libcli11-dev nlohmann-json3-dev)
    file(COPY_FILE /usr/share/doc/${package}/copyright ${doc}/copyright.${package})
endforeach()

file(GLOB pages ${usr}/share/man/man*/* ${doc}/changelog)
foreach(page ${pages})
    execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
