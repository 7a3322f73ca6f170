// Plays recordings in a headless Chromium and says as JSON what it presented of each. Ends with 1
// when that is not every picture, when one was dropped or when no sound was decoded.
//
//     node play.mjs [--screenshot FILE] --frames N --rate FRAMES/SECOND FILE...
//
// Each file is played through, slowly, so that a busy machine has time for every picture; then each
// of its pictures is sought by its time, and what is presented must carry that time.
import fs from "node:fs";
import http from "node:http";
import path from "node:path";
import {parseArgs} from "node:util";
import {chromium} from "playwright-core";

const {values, positionals: files} = parseArgs({
    allowPositionals: true,
    options: {
        screenshot: {type: "string"},
        frames: {type: "string"},
        rate: {type: "string"},
        browser: {type: "string", default: "/usr/bin/chromium"},
    },
});

const PAGE = `<!doctype html><title>recordings</title><style>
body { margin: 16px; background: #222; color: #eee; font: 16px sans-serif; }
figure { display: inline-block; margin: 0 8px 16px; } video, figcaption { width: 480px; display: block; }
</style>`;

// The page at /, the files at /0, /1, ..., with ranges.
function serve(request, response) {
    if (request.url === "/") {
        response.writeHead(200, {"Content-Type": "text/html"}).end(PAGE);
        return;
    }
    const file = files[Number(request.url.slice(1))];
    if (file === undefined) {
        response.writeHead(404).end();
        return;
    }
    const {size} = fs.statSync(file);
    const range = /^bytes=(\d+)-(\d*)$/.exec(request.headers.range ?? "");
    const first = range ? Number(range[1]) : 0;
    const last = range?.[2] ? Math.min(Number(range[2]), size - 1) : size - 1;
    response.writeHead(range ? 206 : 200, {
        "Accept-Ranges": "bytes",
        "Content-Type": "video/mp4",
        "Content-Length": Math.max(last + 1 - first, 0),
        ...(range && {"Content-Range": `bytes ${first}-${last}/${size}`}),
    });
    if (size === 0) {
        response.end();
        return;
    }
    const stream = fs.createReadStream(file, {start: first, end: last});
    response.on("close", () => stream.destroy());  // the browser has seen enough of this range
    stream.pipe(response);
}

// Runs in the page: plays one file, then seeks each picture.
async function judge({url, name, frames, rate}) {
    const figure = document.createElement("figure");
    const video = document.createElement("video");
    const caption = document.createElement("figcaption");
    figure.append(video, caption);
    document.body.append(figure);
    video.muted = true;
    video.playsInline = true;
    video.playbackRate = 0.5;
    const ended = new Promise((resolve, reject) => {
        video.onended = resolve;
        video.onerror = () => reject(new Error(video.error.message));
    });
    try {
        video.src = url;
        video.play().catch(() => {});  // the error event says why
        await ended;
    } catch (error) {
        return {error: error.message};
    }
    const quality = video.getVideoPlaybackQuality();
    const result = {
        decoded: quality.totalVideoFrames,
        dropped: quality.droppedVideoFrames,
        sound: video.webkitAudioDecodedByteCount,
        width: video.videoWidth,
        height: video.videoHeight,
        seconds: video.duration,
        presented: 0,
    };
    for (let n = 0; n < frames; ++n) {
        const shown = new Promise(resolve =>
            video.requestVideoFrameCallback((_, frame) => resolve(frame.mediaTime)));
        video.currentTime = (n + 0.5) / rate;
        if (Math.abs(await shown - n / rate) < 0.25 / rate)
            ++result.presented;
    }
    result.summary = `${result.presented} of ${frames} frames presented, ` +
        `${result.dropped} of ${result.decoded} dropped, ${result.sound} bytes of sound decoded`;
    caption.textContent = `${name}: ${result.summary}`;
    video.currentTime = result.seconds / 2;
    await new Promise(resolve => video.requestVideoFrameCallback(resolve));
    return result;
}

const [numerator, denominator = 1] = values.rate.split("/").map(Number);
const server = http.createServer(serve).listen(0, "127.0.0.1");
await new Promise(resolve => server.once("listening", resolve));
const browser = await chromium.launch({
    executablePath: values.browser,
    chromiumSandbox: false,
    args: ["--disable-gpu", "--mute-audio", "--autoplay-policy=no-user-gesture-required"],
});
try {
    const page = await browser.newPage({viewport: {width: 1040, height: 400}});
    await page.goto(`http://127.0.0.1:${server.address().port}/`);
    const results = [];
    for (const [index, file] of files.entries())
        results.push({
            file,
            ...await page.evaluate(judge, {
                url: `/${index}`,
                name: path.basename(file),
                frames: Number(values.frames),
                rate: numerator / denominator,
            }),
        });
    if (values.screenshot)
        await page.screenshot({path: values.screenshot, fullPage: true});
    console.log(JSON.stringify(results, null, 4));
    for (const {file, error, summary} of results)
        console.error(`   ${file}: ${error ?? summary}`);
    const expected = Number(values.frames);
    const whole = ({error, decoded, presented, dropped, sound}) =>
        !error && decoded === expected && presented === expected && dropped === 0 && sound > 0;
    process.exitCode = results.length > 0 && results.every(whole) ? 0 : 1;
} finally {
    await browser.close();
    server.close();
    server.closeAllConnections?.();
}
