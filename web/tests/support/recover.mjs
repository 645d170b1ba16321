/**
 * The example's recovery by the page's code, in the place of the files: recover.mjs DIRECTORY. It prints what
 * examples/recover.c prints.
 */
import {readdirSync, rmSync, writeFileSync, writeSync} from "node:fs";

import {Repair} from "../../repair.js";
import {FileSource, assemble, loadModule} from "./files.js";

const directory = process.argv[2], repair = new Repair(loadModule(), (bytes) => writeSync(1, bytes));
for (const {media: name, journal} of repair.pair(readdirSync(directory))) {
    const path = `${directory}/${name}`, beside = journal && `${directory}/${journal}`;
    const media = new FileSource(path), found = repair.plan(media, beside && new FileSource(beside));
    if (found.parts) writeFileSync(path, assemble(found.parts, media));
    if (beside && found.journal_goes) rmSync(beside);
    console.log(`${path}: ${found.result.replaceAll("_", " ")}`);
}
