# The fuzz targets (fuzz_<name>.cpp, corpus in corpus/<name>/), for the clang
# fuzzing build and for the suite, which replays every corpus.
set(QUILLANE_FUZZ_TARGETS fuzz_h26x_base fuzz_htoi fuzz_utf8 fuzz_range_check fuzz_au_stamper fuzz_net_files
    fuzz_config_files)
# Targets that reach the access-unit stamping shared by the tool and the element.
set(QUILLANE_FUZZ_STAMPING_TARGETS fuzz_au_stamper)
# Targets that reach internal pieces of the library.
set(QUILLANE_FUZZ_INTERNAL_TARGETS fuzz_net_files fuzz_h26x_base)
