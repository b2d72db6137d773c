# SPDX-License-Identifier: Apache-2.0
# The fuzz targets and their dictionaries; sourced by the fuzz scripts.
FUZZ_TARGETS=(fuzz_generators fuzz_update_device fuzz_kernel_files fuzz_snapshot fuzz_page_decode)
fuzz_dict() {
  case "$1" in
    fuzz_generators | fuzz_update_device | fuzz_page_decode) echo fuzz/device.dict ;;
    fuzz_kernel_files) echo fuzz/kernel_files.dict ;;
    fuzz_snapshot) echo fuzz/snapshot.dict ;;
  esac
}
