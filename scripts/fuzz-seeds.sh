#!/usr/bin/env bash
# Makes the seed inputs of the fuzz targets (fuzz/corpus/<target>/) from the reference corpus:
# the first 32 KiB of a few real streams per target, so that every fuzzer starts from inputs that
# reach deep into its parser. Run it again when a target or the corpus changes; the seeds are kept
# in the repository so that CI needs no corpus to fuzz.
set -euo pipefail
cd "$(dirname "$0")/.."
corpus=${1:-../shared/corpus}
[ -d "$corpus/gen" ] || { echo "no corpus at $corpus"; exit 1; }
limit=32768

# target: files of the corpus (globs) whose heads seed it
seeds=(
  "fuzz_ac3reader: gen/ac3_20_192k.ac3 gen/ac3_51_448k.ac3 gen/eac3_51_640k.eac3 public/eac3/the_great_wall_7.1.eac3 public/eac3/csi_miami_stereo_128_spx_junk352.eac3"
  "fuzz_dtsreader: gen/dts_51_768k.dts public/dts/xll_51_24_48_768.dts public/dts/xbr_51_24_48_3840.dts public/dts/dts_es_61.dts"
  "fuzz_dtsexsub: public/dts/xll_51_24_48_768.dts public/dts/xbr_51_24_48_3840.dts"
  "fuzz_flacdecoder: gen/flac_20_16.flac gen/flac_51_24.flac"
  "fuzz_h264reader: gen/h264_1080p24.h264"
  "fuzz_h265reader: gen/uhd_hdr10_2160p24.hevc"
  "fuzz_mp2reader: gen/mp2_20_224k.mp2"
  "fuzz_mpeg2reader: gen/mpeg2_576i25.m2v gen/mpeg2_480p24_pulldown.m2v"
  "fuzz_pesparser: gen/bd_h264_multi.m2ts"
  "fuzz_sourceprobe: gen/bd_h264_multi.m2ts gen/ts_h264_eac3_ac3_aac.ts public/vob/*.vob gen/evo/*.evo"
  "fuzz_thdreader: gen/truehd_20_48k.thd gen/mlp_20_48k.mlp public/truehd/dts1_truehd_ac3_interleaved.thdac3"
  "fuzz_tsdemuxer: gen/bd_h264_multi.m2ts gen/ts_h264_eac3_ac3_aac.ts"
  "fuzz_tsparser: gen/bd_h264_multi.m2ts gen/ts_h264_eac3_ac3_aac.ts gen/bd_lpcm_variants.m2ts gen/bd_uhd_hevc_ac3.m2ts"
  "fuzz_wavreader: gen/wav_20_16.wav gen/wav_51_24.wav"
  "fuzz_rawanalyzer: gen/pcm_s16le_20_48k.raw"
  "fuzz_h264muxer: gen/h264_1080p24.h264"
  "fuzz_mpeg2muxer: gen/mpeg2_576i25.m2v gen/mpeg2_480p24_pulldown.m2v"
  "fuzz_mpls: gen/disc/bd-angles/BDMV/PLAYLIST/*.mpls gen/disc/bd-d3-join/BDMV/PLAYLIST/*.mpls"
  "fuzz_clpi: gen/disc/bd-angles/BDMV/CLIPINF/*.clpi gen/disc/bd-d3-join/BDMV/CLIPINF/*.clpi"
  "fuzz_xpl: gen/disc/hd-x001/ADV_OBJ/VPLST000.XPL gen/disc/hd-synth-dev/ADV_OBJ/VPLST000.XPL"
  "fuzz_vti: gen/disc/hd-x001/HVDVD_TS/HVA00001.VTI gen/disc/hd-synth-dev/HDDVD_TS/HVA00001.VTI"
)
# The detector's first input byte picks block size and options; 0x80 is whole 16 KiB blocks.
detector="gen/ac3_51_448k.ac3 gen/dts_51_768k.dts gen/truehd_51_48k.thd gen/mp2_20_224k.mp2
  gen/wav_51_24.wav gen/flac_20_16.flac gen/h264_1080p24.h264 gen/mpeg2_576i25.m2v
  gen/bd_h264_multi.m2ts gen/ts_h264_eac3_ac3_aac.ts public/vob/*.vob
  public/dts/xll_51_24_48_768.dtshd public/eac3/csi_miami_stereo_128_spx_junk352.eac3"

for row in "${seeds[@]}"; do
  target=${row%%:*}
  [ -f "fuzz/$target.cpp" ] || continue
  rm -rf "fuzz/corpus/$target"
  mkdir -p "fuzz/corpus/$target"
  for pattern in ${row#*:}; do
    for file in $corpus/$pattern; do
      [ -f "$file" ] || continue
      name=$(echo "${file#$corpus/}" | tr '/' '_')
      head -c "$limit" "$file" >"fuzz/corpus/$target/$name"
    done
  done
done
rm -rf fuzz/corpus/fuzz_detector
mkdir -p fuzz/corpus/fuzz_detector
for pattern in $detector; do
  for file in $corpus/$pattern; do
    [ -f "$file" ] || continue
    { printf '\x80'; head -c "$limit" "$file"; } >"fuzz/corpus/fuzz_detector/$(basename "$file")"
  done
done

# The gap realizers: family (0 AC3, 1 DTS, 2 MP2), record count, records, then the stream. The
# records are a 200 ms gap after 1 s and a 100 ms overlap after 2 s, in 100 ns ticks.
rm -rf fuzz/corpus/fuzz_gaprealizers
mkdir -p fuzz/corpus/fuzz_gaprealizers
records() {
  python3 -c 'import struct,sys; sys.stdout.buffer.write(struct.pack("<qqqq", 10000000, 2000000, 20000000, -1000000))'
}
family=0
for file in gen/ac3_20_192k.ac3 gen/dts_51_768k.dts gen/mp2_20_224k.mp2; do
  { printf "\\x0$family\\x02"; records; head -c "$limit" "$corpus/$file"; } \
    >"fuzz/corpus/fuzz_gaprealizers/$(basename "$file")"
  family=$((family + 1))
done

# Whole runs over transport streams: the first byte picks the file's kind and the mode (0 and 1:
# "-check" as .ts and .m2ts; 3: track 2 of an .m2ts decoded).
rm -rf fuzz/corpus/fuzz_tschain
mkdir -p fuzz/corpus/fuzz_tschain
for seed in "0 gen/ts_h264_eac3_ac3_aac.ts" "1 gen/bd_h264_multi.m2ts" "1 gen/bd_lpcm_variants.m2ts" \
    "3 gen/bd_audio_delay100ms.m2ts" "1 public/m2ts/Test_H264_DTS1.m2ts"; do
  set -- $seed
  [ -f "$corpus/$2" ] || continue
  { printf "\\x0$1"; head -c 65536 "$corpus/$2"; } >"fuzz/corpus/fuzz_tschain/$(basename "$2")"
done

# The PGS path: the head of an M2TS with PGS packets, then the control bytes (a seam halfway, the
# subtitle PID 0x1200, pieces of 193 bytes).
rm -rf fuzz/corpus/fuzz_pgs
mkdir -p fuzz/corpus/fuzz_pgs
for file in gen/bd_h264_pgs.m2ts public/m2ts/Test_H264_DTS1.m2ts; do
  [ -f "$corpus/$file" ] || continue
  { head -c "$limit" "$corpus/$file"; printf '\x80\x00\x03'; } \
    >"fuzz/corpus/fuzz_pgs/$(echo "$file" | tr '/' '_')"
done

# Command lines, arguments separated by NUL bytes as argv holds them.
rm -rf fuzz/corpus/fuzz_cmdline
mkdir -p fuzz/corpus/fuzz_cmdline
n=0
for line in 'movie.m2ts|2:|audio.flac|-down2' 'a.evo+b.evo|1:|joined.evo' 'disc|2)|-demux' \
    'x.thd|y.ac3|-448|-log=my log.txt' 'in.wav|out.wavs|+100ms|-resampleTo44100|-quality=4' \
    'src.m2ts|3:|stdout.wav|-check|-24p|-keepDialnorm|-core'; do
  printf '%s' "$line" | tr '|' '\0' >"fuzz/corpus/fuzz_cmdline/line$n"
  n=$((n + 1))
done
du -sh fuzz/corpus
