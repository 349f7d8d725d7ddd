# Sourced by the build scripts: sets `compiler_cache` to the CMake arguments that put ccache in
# front of the compiler when it is installed (empty otherwise, and the build works the same).
# The cache lives in ccache's own folder, outside the checkout, so a fresh clone on the same
# machine reuses the objects of the previous one. Paths below the checkout are hashed relative to
# it (base_dir), and the working directory is left out of the hash of objects with debug
# information, so two clones at different paths share entries.
compiler_cache=()
if command -v ccache > /dev/null; then
  compiler_cache=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR="$root"
  export CCACHE_NOHASHDIR=true
  # Precompiled headers: the .gch is made in each build folder just before its users compile,
  # so its time stamps say nothing; its contents are hashed all the same.
  export CCACHE_SLOPPINESS="pch_defines,time_macros,include_file_mtime,include_file_ctime"
fi
