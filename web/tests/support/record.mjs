/**
 * The example's recorder as WebAssembly, on the files of this machine: record.mjs MODULE ARGUMENT... A write beyond the
 * limit of a file's size ends it as the signal ends it elsewhere.
 */
import {readFileSync} from "node:fs";
import {resolve} from "node:path";
import {WASI} from "node:wasi";

const EFBIG = 22, KILLED = 128 + 25; // errno of WASI; SIGXFSZ
const given = process.argv.slice(2).map((word) => word.includes(".") ? resolve(word) : word); // paths from the root
const wasi = new WASI({version: "preview1", args: given, preopens: {"/": "/"}});
const imports = {...wasi.wasiImport};
for (const name of ["fd_write", "fd_pwrite"]) {
    imports[name] = (...values) => {
        const error = wasi.wasiImport[name](...values);
        return error === EFBIG ? process.reallyExit(KILLED) : error;
    };
}
const module = new WebAssembly.Module(readFileSync(process.argv[2]));
process.exitCode = wasi.start(new WebAssembly.Instance(module, {wasi_snapshot_preview1: imports})) ?? 0;
