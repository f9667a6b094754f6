# The example services' manifests (share/lumaro/extensions/*.json) name their containing
# applications relative to the manifest and a placeholder executable. A build tree and an
# installation each write copies that name real paths: the containing application resolved
# against the folder the copy describes, and the example setup UI where that tree has it.
include_guard(GLOBAL)

# lumaro_write_example_manifests(SOURCE_DIR RESOLVE_DIR EXECUTABLE OUTPUT_DIR OUT_FILES)
# Writes one copy per example manifest of SOURCE_DIR into OUTPUT_DIR (unchanged copies are left
# alone, so a reconfigure rebuilds nothing) and lists them in OUT_FILES.
function(lumaro_write_example_manifests source_dir resolve_dir executable output_dir out_files)
  file(GLOB manifests ${source_dir}/*.json)
  set(written)
  foreach(manifest ${manifests})
    file(READ ${manifest} json)
    string(JSON program ERROR_VARIABLE no_program GET "${json}" executable)
    string(JSON containing ERROR_VARIABLE no_containing GET "${json}" containingApplication)
    if(no_program OR no_containing OR NOT program MATCHES "example-setup-ui$")
      continue()
    endif()
    get_filename_component(containing "${containing}" ABSOLUTE BASE_DIR ${resolve_dir})
    string(JSON json SET "${json}" containingApplication "\"${containing}\"")
    string(JSON json SET "${json}" executable "\"${executable}\"")
    get_filename_component(name ${manifest} NAME)
    file(WRITE ${output_dir}/${name}.new "${json}\n")
    file(COPY_FILE ${output_dir}/${name}.new ${output_dir}/${name} ONLY_IF_DIFFERENT)
    file(REMOVE ${output_dir}/${name}.new)
    list(APPEND written ${output_dir}/${name})
  endforeach()
  set(${out_files} ${written} PARENT_SCOPE)
endfunction()
