// SPDX-License-Identifier: Apache-2.0

#include <gmock/gmock.h>

#include <string>

#include "tests/apps/run_program.h"

// Files as phones, cameras, broadcasts and screen recorders make them: what ffmpeg -c copy or a plain
// transcode keeps has to be kept.

namespace {

// What the commands below use. P is the program, FF makes files; v, a, frames, times tell of the video
// and the sound, steps whether the times of packets are those of one recording.
constexpr const char* SHELL = R"(
export LC_ALL=C; P=$PROGRAM
FF() { ffmpeg -nostdin -loglevel error -y "$@"; }
probe() { ffprobe -v quiet -of csv=p=0 "$@" | sed 's/,*$//' | grep . || echo none; }
v() { probe -select_streams v:0 -show_entries stream=$1 $2 | head -1; }
a() { probe -select_streams a:0 -show_entries stream=$1 $2 | head -1; }
frames() { probe -select_streams v:0 -count_packets -show_entries stream=nb_read_packets $1 | head -1; }
times() { probe -select_streams $1 -show_entries packet=pts_time $2 | sort -n; }
steps() { times $1 $2 | awk 'NR > 1 && ($1 - l > 0.2 || $1 <= l) { n++ } { l = $1 } END { print n + 0 }'; }
)";

struct Row {
    const char* name;
    const char* make;      // input files, from those there are: shaky.y4m, sound.mkv, rows before
    const char* run;       // the program
    int status;            // its exit status
    const char* says;      // a part of its messages; "": it is silent
    const char* check;     // prints what matters
    const char* expected;  // of it
};

constexpr Row ROWS[] = {
    {"pixel aspect of the container", "FF -i shaky.y4m -aspect 16:9 -c:v prores sar.mov",
     "$P -q sar.mov sar.mkv; $P -q sar.mov sar.y4m", 0, "",
     "v sample_aspect_ratio sar.mkv; head -c 60 sar.y4m | grep -ao 'A[0-9]*:[0-9]*'",
     "4:3\nA4:3\n"},
    {"pieces that do not start at 0",
     "FF -i sound.mkv -c copy -f segment -segment_time 0.5 piece%d.mkv",
     "FF -i piece1.mkv -c copy copied1.mkv; $P -q piece1.mkv steady1.mkv", 0, "",
     "times v copied1.mkv | cmp - <(times v steady1.mkv)", ""},
    {"two recordings joined", R"(FF -i sound.mkv -c:v mpeg2video -c:a mp2 one.ts
        FF -i one.ts -c copy -output_ts_offset 5000 two.ts
        cat one.ts one.ts > restart.ts; cat one.ts two.ts > jump.ts)",
     "$P -q restart.ts restart.mp4 && $P -q jump.ts jump.mkv", 0, "",
     R"(for i in restart.mp4 jump.mkv; do frames $i; steps v $i; steps a $i
        probe -show_entries format=duration $i | cut -c 1; done)",
     "60\n0\n0\n2\n60\n0\n0\n2\n"},
    {"equal times of sound", "FF -i sound.mkv -c:v mpeg4 -c:a adpcm_ima_wav adpcm.avi",
     "$P -q adpcm.avi adpcm.mkv", 0, "", "a codec_name adpcm.mkv", "adpcm_ima_wav\n"},
    {"sound that the container cannot hold",
     R"(for c in flac pcm_s16le; do FF -i sound.mkv -c:v copy -c:a $c $c.mkv; done)",
     R"(for o in mp4 mov ts mpg webm; do $P -q flac.mkv flac.$o; done
        for o in mp4 mov ts; do $P -q pcm_s16le.mkv pcm.$o; done)",
     0, "", R"(for o in mp4 mov ts mpg webm; do a codec_name flac.$o; done | tr '\n' ' '
        for o in mp4 mov ts; do a codec_name pcm.$o; done | tr '\n' ' ')",
     "aac aac aac mp2 opus aac pcm_s16le aac "},
    {"sound that changes", R"(FF -i sound.mkv -c copy -c:a aac -ar 44100 mono.ts
        FF -i sound.mkv -c copy -c:a aac -ar 48000 -ac 2 stereo.ts; cat mono.ts stereo.ts > mix.ts
        FF -i sound.mkv -c:v copy -ar 44100 -c:a pcm_s16le cd.mov
        FF -i sound.mkv -map v -map a -map a -c copy both.mkv)",
     "$P -q mix.ts mix.mpg; $P -q both.mkv one.flv && $P cd.mov studio.mxf", 0,
     "is resampled to 48000 Hz",
     "FF -i mix.mpg -vn -f s16le -ac 1 -ar 10000 - | wc -c | cut -c 1-2; steps a mix.mpg",
     "42\n0\n"},
    {"sound that begins late", R"(FF -f lavfi -i testsrc2=s=64x48:r=5:d=11 -itsoffset 10 \
        -f lavfi -i sine=d=1 -map 0 -map 1 -c:v libx264 -g 5 -c:a aac late.ts)",
     "$P -q late.ts late.mp4; $P late.ts late.avi", 0,
     "AVI (Audio Video Interleaved) cannot tell when it begins",
     R"(a codec_name,start_time late.mp4 | cut -c 1-7
        FF -i late.avi -vn -f s16le -ar 10000 -ac 1 - | wc -c | cut -c 1-2)",
     "aac,9.9\n22\n"},
    {"no sound in pictures, or none wanted", "",
     "$P flac.mkv out.gif; $P -q --no-audio flac.mkv mute.mp4", 0, "cannot hold it",
     "a codec_name out.gif; a codec_name mute.mp4", "none\nnone\n"},
    {"subtitles that the container cannot hold",
     R"(printf '1\n00:00:00,200 --> 00:00:00,900\nHello\n' > words.srt
        FF -i sound.mkv -i words.srt -c copy -c:s mov_text words.mp4)",
     "$P -q words.mp4 words.mkv && $P -q words.mkv words.webm && $P words.mkv words.mpg", 0,
     "stream 2 (subtitle, subrip) is left out",
     R"(for i in mkv webm; do
        probe -select_streams s -show_entries packet=duration_time:stream=codec_name words.$i; done)",
     "0.700000\nsubrip\n0.700000\nwebvtt\n"},
    {"HEVC in QuickTime, bit depth, mastering display", R"(FF -i shaky.y4m -pix_fmt yuv420p10le \
        -color_primaries bt2020 -colorspace bt2020nc -color_trc smpte2084 -c:v libx265 -preset \
        ultrafast -x265-params "log-level=none:hdr10=1:master-display=G(13250,34500)B(7500,3000)\
R(34000,16000)WP(15635,16450)L(10000000,1):max-cll=1000,400" hdr.mkv)",
     "for o in mp4 mov; do $P -q hdr.mkv hdr.$o; done", 0, "",
     R"(for o in mp4 mov; do v codec_tag_string,pix_fmt,color_transfer hdr.$o
        probe -read_intervals %+#1 -show_entries frame_side_data=max_content hdr.$o; done)",
     "hvc1,yuv420p10le,smpte2084\n1000\nhvc1,yuv420p10le,smpte2084\n1000\n"},
    {"colours that only the container knows", R"(FF -i shaky.y4m -frames:v 5 -s 256x144 \
        -pix_fmt yuv422p10le -color_primaries bt2020 -color_trc arib-std-b67 -colorspace bt2020nc \
        -c:v dnxhd -profile:v dnxhr_hqx studio.mov)",
     "$P -q studio.mov studio.mkv; $P -q studio.mov graded.mov --codec prores", 0, "",
     R"(for i in studio.mkv graded.mov; do
        v codec_name,pix_fmt,color_space,color_transfer,color_primaries $i; done)",
     "hevc,yuv422p10le,bt2020nc,arib-std-b67,bt2020\nprores,yuv422p10le,bt2020nc,arib-std-b67,"
     "bt2020\n"},
    // The matrix in the header of the track: 4 bytes each, of which the first is 1 in 16.16.
    {"mirrored, and upright beside each other",
     R"(FF -i shaky.y4m -frames:v 12 -c:v libx264 plain.mp4
        FF -i plain.mp4 -c copy -metadata:s:v:0 rotate=90 turned.mp4; cp plain.mp4 mirrored.mp4
        at=$(grep -abo tkhd mirrored.mp4 | cut -d: -f1)
        printf '\377\377\0\0' |
            dd of=mirrored.mp4 bs=1 seek=$((at + 44)) conv=notrunc status=none)",
     R"($P -q plain.mp4 plain.mkv; $P -q mirrored.mp4 mirrored.mkv
        $P -q turned.mp4 out.mp4 --compare upright.mkv)",
     0, "", R"(v width,height upright.mkv
        FF -i plain.mkv -i mirrored.mkv -lavfi '[0]hflip[a];[a][1]psnr=-' -f null - |
            sed 's/.*psnr_avg:\([0-9]\).*/\1/' | sort -u)",
     "96,64\n4\n"},
    {"what phones tell of themselves", R"(FF -i sound.mkv -c copy -movflags use_metadata_tags \
        -metadata com.apple.quicktime.model='Phone 3' -metadata com.android.version=14 \
        -metadata location=+48.1+011.5/ -metadata creation_time=2024-05-01T10:00:00Z keys.mov)",
     R"(for o in mov mp4 mkv; do $P -q keys.mov phone.$o; done; $P -q phone.mkv phone.m4v
        $P keys.mov phone.avi)",
     0, "has no place for it: location, camera, date",
     R"(for o in mov mp4 mkv m4v; do for i in quicktime.model android.version location= creation; do
        probe -show_entries format_tags phone.$o -of flat | grep -i "${i//./_}" |
            cut -d= -f2 | cut -c 2-6; done; done | tr '\n' ' ')",
     "Phone 14\" +48.1 2024- Phone 14\" +48.1 2024- Phone 14\" +48.1 2024- Phone 14\" +48.1 "
     "2024- "},
    // User data of a picture goes before its first slice.
    {"closed captions", R"(FF -i shaky.y4m -c:v mpeg2video -flags +ilme+ildct -bf 0 plain.m2v
        captions='\xb2GA94\x03\x41\xff\xfc\x94\x2c\xff'
        perl -0777 -pe "s/(\\0\\0\\x01)\\x01/\$1$captions\$1\\x01/g" plain.m2v > captions.m2v
        cat plain.m2v captions.m2v > later.m2v)",
     "$P -q captions.m2v captions.mp4; $P later.m2v captions.avi --codec mpeg4", 0,
     "captions are dropped",
     "probe -show_entries frame_side_data=side_data_type captions.mp4 | grep -c A53", "30\n"},
    {"fonts", R"(printf font > a.ttf; FF -i sound.mkv -c copy -attach a.ttf \
        -metadata:s:t mimetype=application/x-truetype-font fonts.mkv)",
     "$P -q fonts.mkv kept.mkv", 0, "",
     "probe -select_streams t -show_entries stream=codec_name:stream_tags=filename kept.mkv",
     "ttf,a.ttf\n"},
    {"telemetry of action cameras",
     "sed 's/tx3g/gpmd/; s/sbtl/meta/; s/nmhd/gmhd/' words.mp4 > gpmd.mp4",
     R"($P -q gpmd.mp4 telemetry.mp4; $P -q gpmd.mp4 telemetry.mov; $P gpmd.mp4 telemetry.mkv)", 0,
     "(data, bin_data) is left out", R"(for i in gpmd.mp4 telemetry.mp4 telemetry.mov; do
        probe -select_streams d -show_entries packet=pts_time,size:stream=codec_tag_string $i |
            tail -2; done)",
     "0.200000,7\ngpmd\n0.200000,7\ngpmd\n0.200000,7\ngpmd\n"},
    {"interlaced", R"(sed '1s/Ip/It/' shaky.y4m > fields.y4m
        FF -i shaky.y4m -vf fps=50,interlace -flags +ilme+ildct -c:v mpeg2video fields.ts)",
     R"($P -q fields.ts full.mp4 && $P -q fields.ts half.mp4 --interlaced keep-rate
        $P -q fields.y4m full.y4m && $P -q fields.y4m same.y4m --interlaced ignore)",
     0, "", R"(v avg_frame_rate full.mp4; head -q -n 1 full.y4m same.y4m | cut -d ' ' -f 4,5
        for i in full.mp4 half.mp4 full.y4m; do frames $i; done; v duration half.mp4)",
     "50/1\nF60:1 Ip\nF30:1 It\n50\n25\n60\n1.000000\n"},
    {"AVI of pictures out of order, of varying rate", R"(FF -i shaky.y4m -f lavfi -i sine=440:d=1 \
        -c:a pcm_s16le -vf 'select=mod(n\,7)' -vsync vfr -c:v libx264 -bf 3 vary.mkv)",
     "$P -q vary.mkv vary.avi; $P vary.mkv vary.y4m", 0, "time between pictures varies",
     R"(v r_frame_rate vary.avi; paste -d, \
        <(probe -select_streams v -show_entries packet=dts_time vary.avi) <(times v vary.mkv) |
            awk -F, 'NR > 1 && ($1 - $2) ^ 2 > 0.002 { print }')",
     "30/1\n"},
    {"nohup", "", R"((trap '' HUP; $P -q --input-format lavfi testsrc2=d=9999 endless.mkv &
        until find . -name '*.part' | grep -q .; do kill -0 $! || exit; sleep 0.1; done
        kill -HUP $!; sleep 0.3; kill -TERM $!; wait $!))",
     130, "interrupted", "ls | grep -c endless", "0\n"},
    {"no folder for a cache", "",
     "HOME=/proc/none POCL_CACHE_DIR=/proc/none $P -q plain.mp4 uncached.mp4", 0, "",
     "frames uncached.mp4", "12\n"},
    {"encoders that want their own rates, units, profiles",
     "FF -i shaky.y4m -frames:v 5 -s 256x144 -c:v ffv1 wide.mkv",
     R"($P -q sound.mkv mpeg2.mkv --codec mpeg2video; $P -q one.ts mpeg4.ts --codec mpeg4
        $P -q wide.mkv wide.mov --codec dnxhd; $P -q wide.mkv wide.mxf
        $P -q plain.mp4 av1.mkv --codec av1
        $P -q sound.mkv b.mkv --bitrate 300k --encoder-option g=7)",
     0, "", R"(for i in mpeg2.mkv mpeg4.ts wide.mov wide.mxf; do v codec_name $i; done
        probe -select_streams v -show_entries packet=flags b.mkv | grep -c K)",
     "mpeg2video\nmpeg4\ndnxhd\nh264\n5\n"},
    {"encoders that cannot be used", "",
     R"(for o in '--preset bad' '--crf 60' '--codec h264_vaapi' '--codec h264_nvenc' \
        '--encoder-option g=z' '--codec nonsense'; do $P sound.mkv no.mp4 $o || n=$((n+1)); done
        exit $n)",
     6, "has no preset 'bad'; it has ultrafast", "ls | grep -c no.mp4", "0\n"},
    {"silence", "", "for c in hevc av1; do $P -q plain.mp4 $c.mkv --codec $c --overwrite; done", 0,
     "", "v codec_name hevc.mkv", "hevc\n"},
    {"a report that cannot be written", "", "$P -q plain.mp4 kept.mp4 --json /dev/full", 3,
     "the video itself is complete", "frames kept.mp4", "12\n"},
    {"a batch again", "$P -q --output-dir all plain.mp4 words.mp4",
     R"($P --output-dir all --skip-existing plain.mp4 words.mp4 mirrored.mp4 &&
        $P --skip-existing plain.mp4 kept.mp4)",
     0, "2 of them were before", "ls all | wc -l", "3\n"},
    {"faults of the input are its own", R"(FF -i sound.mkv -c:v mpeg2video -c:a ac3 s.ts
        head -c 9000 s.ts > cut.ts; head -c 2000 words.mp4 > cut.mp4
        FF -i shaky.y4m -s 640x480 -c:v mjpeg -q:v 1 last.mov)",
     "$P -q cut.ts whole.mp4", 5, "pictures of the input are damaged",
     R"($P plain.mp4 - --output-format mp4 2>&1 >/dev/full | grep -o 'needs a file'
        cat last.mov | $P -q - no.mp4 2>&1 | grep -o 'index comes last'
        $P -q cut.mp4 no.mp4 2>&1 | grep -o 'no index'; $P -q - last.mp4 < last.mov)",
     "needs a file\nindex comes last\nno index\n"},
    {"numbered pictures", "FF -i shaky.y4m -frames:v 12 in%03d.png",
     R"($P -q --input-option framerate=5 in%03d.png seq.mp4 && $P -q plain.mp4 out%02d.jpg &&
        $P -q --skip-existing plain.mp4 out%02d.jpg && $P -q plain.mp4 out%02d.jpg)",
     3, "out01.jpg exists already", R"(frames seq.mp4; ls out*.jpg | wc -l
        $P -q plain.mp4 none/%d.jpg 2>&1 | grep -o 'No such file')",
     "12\n12\nNo such file\n"},
    {"wrong command lines", "", R"(for o in '' '--crop nan a b' '--jobs 2 a b' '--bitrate 9x a b' \
        '--start x a b' '--stream 1 sound.mkv no.mp4'; do $P $o || n=$((n+$?)); done; exit $n)",
     7, "stabilize-video: IN and OUT are required\nUsage: stabilize-video [OPTION]... IN OUT", ":",
     ""},
    {"two videos", "FF -i sound.mkv -i sar.mov -map 0:v -map 1:v -c copy two.mkv",
     "$P -q two.mkv first.mkv && $P two.mkv second.mkv --stream 1", 0, "which was prores",
     R"(for i in first second; do
        probe -select_streams v:1 -show_entries stream=codec_name $i.mkv; done)",
     "prores\nh264\n"},
    {"transparency", R"(FF -i shaky.y4m -pix_fmt yuva444p10le -c:v prores_ks alpha.mov
        FF -i shaky.y4m -frames:v 5 -pix_fmt rgba clear%d.png
        FF -f lavfi -i color=red@0.5:64x48:d=0.2,format=yuva420p -c:v libvpx-vp9 \
            -metadata:s:v alpha_mode=1 clear.webm)",
     R"($P -q alpha.mov clear.mov --codec prores; $P -q clear%d.png kept%d.png
        for c in vp8 vp9; do $P -q clear.webm $c.webm --codec $c; done
        $P -q clear.webm opaque.mkv; $P alpha.mov opaque.mp4)",
     0, "transparency is dropped",
     R"(for i in clear.mov kept1.png opaque.mp4; do v codec_name,pix_fmt $i; done
        for i in vp8:libvpx vp9:libvpx-vp9; do
            FF -c:v ${i#*:} -i ${i%:*}.webm -vf alphaextract -frames:v 1 -f rawvideo - |
                od -An -tu1 -N1; done
        for i in vp8.webm vp9.webm opaque.mkv; do probe -show_entries stream_tags=alpha_mode $i; done)",
     "prores,yuva444p12le\npng,rgba\nhevc,yuv444p12le\n 127\n 127\n1\n1\nnone\n"},
    {"quality of older codecs", "$P -q shaky.y4m exact.y4m",
     "for c in vp8 theora mpeg4; do $P -q shaky.y4m q$c.mkv --codec $c; done", 0, "",
     R"(for c in vp8 theora mpeg4; do FF -i q$c.mkv -i exact.y4m -lavfi psnr=- -f null - |
        grep -o 'psnr_avg:[0-9]*' | awk -F: -v c=$c '$2 < 34 { print c, $0 }'; done)",
     ""},
    {"no OpenCL driver", "", "OCL_ICD_VENDORS=/none $P plain.mp4 no.mp4 --engine opencl", 4,
     "is a driver installed? (pocl-opencl-icd", ":", ""},
    {"a preview", R"(mkdir bin; printf '#!/bin/sh\ncat > seen.nut\n' > bin/ffplay
        chmod +x bin/ffplay)",
     R"((cat shaky.y4m; sleep 2) | PATH=$PWD/bin:$PATH DISPLAY=:9 $P -q --preview - seen.mp4
        PATH=/none DISPLAY=:9 $P --preview plain.mp4 unseen.mp4)",
     0, "note: --preview cannot start ffplay", "v codec_name,width seen.nut", "rawvideo,128\n"},
    {"a part", "", "$P -q --start 0.5 --duration 0.3 sound.mkv part.mp4", 0, "",
     "frames part.mp4; v start_time part.mp4; a duration part.mp4 | cut -c 1-3",
     "9\n0.023000\n0.3\n"},
};

TEST(RealFiles, KeepWhatTheyHave) {
    const Folder folder;
    write_clip(folder.file("shaky.y4m"), 64, 48, 30);
    write_file(folder.file("shell"), SHELL);
    const auto shell = [&](const std::string& command) {
        write_file(folder.file("command"), ". ./shell\n" + command + "\n");
        return run_shell(folder, "export PROGRAM; bash ./command");
    };
    ASSERT_EQ(shell("FF -i shaky.y4m -f lavfi -i sine=440:d=1 -c:v libx264 -preset ultrafast -g 10 "
                    "-bf 2 -c:a aac sound.mkv")
                  .errors,
              "");
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(shell(row.make).errors, "");
        const Outcome outcome = shell(row.run);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_THAT(outcome.errors, testing::HasSubstr(row.says));
        if (*row.says == '\0') {
            EXPECT_EQ(outcome.errors, "");
        }
        EXPECT_EQ(shell("{ " + std::string(row.check) + "\n} >&2").errors, row.expected);
    }
}

}  // namespace
