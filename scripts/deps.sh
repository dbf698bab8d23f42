# Installs the Debian packages the build and the tests need, when missing.
# Sourced by the other scripts.
quillane_ensure_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

quillane_build_packages=(cmake ninja-build g++ gcc pkg-config binutils libgstreamer1.0-dev)
quillane_test_packages=(googletest libgtest-dev libgmock-dev ffmpeg libgstreamer-plugins-bad1.0-dev
    gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
    libgstreamer-plugins-base1.0-dev iproute2)
quillane_bench_packages=(libbenchmark-dev libglib2.0-dev gstreamer1.0-plugins-base gstreamer1.0-plugins-bad
    gstreamer1.0-plugins-ugly)
# Cross-building for the camera (aarch64) and running the result under
# user-mode emulation; GoogleTest is compiled from the googletest sources.
quillane_cross_packages=(g++-aarch64-linux-gnu gcc-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user googletest)
