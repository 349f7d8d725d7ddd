#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
set -euo pipefail

packages=(
  cmake g++ make python3 pkg-config
  qtbase5-dev libqt5opengl5-dev qt6-base-dev libqt6opengl6-dev
  khronos-api libegl-dev libgl-dev libegl-mesa0 libgl1-mesa-dri
  libgtest-dev libgmock-dev libbenchmark-dev
  glslang-tools libstb-dev imagemagick libastcenc-dev astcenc
  xvfb xauth libtinygltf-dev assimp-testmodels
  libdraco-dev libmeshoptimizer-dev libzstd-dev gltfpack
  clang ccache
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
