# The introspection tests resolve hooks that the test program itself defines, so
# its symbols go into the dynamic symbol table.
set_target_properties(ProcTest PROPERTIES ENABLE_EXPORTS ON)
