# There is no run time of the sanitizers for this target: undefined behaviour ends in a trap, which needs none.
# The checks of indirect calls and of dynamic types do need one. Optimised a little, as the checks cost time.
add_compile_options(-fsanitize=undefined -fsanitize-trap=undefined -fno-sanitize=function,vptr -fno-omit-frame-pointer -O1)
# The containers' own checks of indices and iterators.
add_compile_definitions($<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)

# Gives a program the heap with guard pages.
function(tessa_guard_heap target)
    target_link_libraries(${target} PRIVATE page_guard_heap)
    foreach(function malloc free calloc realloc _aligned_malloc _aligned_free)
        target_link_options(${target} PRIVATE -Wl,--wrap=${function})
    endforeach()
endfunction()
