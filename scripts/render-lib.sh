# Sourced by the screenshot scripts. render SCREEN COMMAND...: runs COMMAND on a private X server of
# SCREEN (WIDTHxHEIGHT) when xvfb-run exists, so the pictures show the xcb platform's fonts and
# styles; otherwise off-screen, which still renders but looks plainer.
render() {
  local screen=$1
  shift
  # The tools run uninstalled: their resources (energy tables, help) are the source tree's.
  export PELMORA_RESOURCES_DIR="${PELMORA_RESOURCES_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/resources}"
  if command -v xvfb-run >/dev/null; then
    xvfb-run -a -s "-screen 0 ${screen}x24" env QT_QPA_PLATFORM=xcb "$@"
  else
    echo "xvfb-run not found: rendering off-screen instead" >&2
    QT_QPA_PLATFORM=offscreen "$@"
  fi
}
