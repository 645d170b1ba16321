/** Calls to the worker, one after the other. A worker that is stuck or has died is replaced. */
import {MODULE, WORKER} from "./inlined.js";

const PATIENCE = 60000; // ms, without a sign of life

export class Helper {
    constructor() {
        this.calls = Promise.resolve();
        this.number = 0;
    }

    /**
     * The value; throws what went wrong. progress is called with what the worker says meanwhile; signal (of an
     * AbortController) ends the call.
     */
    call(name, args = {}, {progress = () => {}, signal} = {}) {
        const result = this.calls.then(() => this.run(name, args, progress, signal));
        this.calls = result.catch(() => {});
        return result;
    }

    async run(name, args, progress, signal) {
        signal?.throwIfAborted();
        this.module ??= await WebAssembly.compile(Uint8Array.from(atob(MODULE), (c) => c.charCodeAt(0)));
        if (!this.worker) {
            this.worker = new Worker(URL.createObjectURL(new Blob([WORKER], {type: "text/javascript"})));
            await this.ask("begin", {module: this.module}, progress, signal);
        }
        return this.ask(name, args, progress, signal);
    }

    ask(name, args, progress, signal) {
        return new Promise((resolve, reject) => {
            const id = ++this.number;
            let timer;
            const end = () => {
                clearTimeout(timer);
                signal?.removeEventListener("abort", stop);
            };
            const fail = (error) => { // what runs in the worker cannot be ended otherwise
                end();
                this.worker?.terminate();
                this.worker = null;
                reject(error);
            };
            const stop = () => fail(signal.reason);
            const wait = () => {
                clearTimeout(timer);
                timer = setTimeout(() => fail(new Error("no answer")), PATIENCE);
            };
            signal?.addEventListener("abort", stop);
            this.worker.onerror = (event) => fail(new Error(event.message));
            this.worker.onmessage = ({data}) => {
                if (data.id !== id) return;
                if ("progress" in data) return wait(), progress(data.progress);
                end();
                if ("error" in data) reject(new Error(data.error));
                else resolve(data.value);
            };
            wait();
            this.worker.postMessage({id, call: name, args});
        });
    }
}
