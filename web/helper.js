/** Calls to the worker, one after the other. A worker that is stuck or has died is replaced. */
import {MODULE, WORKER} from "./inlined.js";

const PATIENCE = 60000; // ms, without a sign of life

export class Helper {
    constructor() {
        this.calls = Promise.resolve();
        this.number = 0;
    }

    /** The value; throws what went wrong. progress is called with what the worker says meanwhile. */
    call(name, args = {}, progress = () => {}) {
        const result = this.calls.then(() => this.run(name, args, progress));
        this.calls = result.catch(() => {});
        return result;
    }

    /** Ends what runs now: its call fails. */
    stop() {
        this.fail?.(new Error("stopped"));
    }

    async run(name, args, progress) {
        if (!this.worker) {
            this.worker = new Worker(URL.createObjectURL(new Blob([WORKER], {type: "text/javascript"})));
            await this.ask("begin", {bytes: Uint8Array.from(atob(MODULE), (c) => c.charCodeAt(0))});
        }
        return this.ask(name, args, progress);
    }

    ask(name, args, progress) {
        return new Promise((resolve, reject) => {
            const id = ++this.number;
            let timer;
            const wait = () => {
                clearTimeout(timer);
                timer = setTimeout(() => this.fail(new Error("no answer")), PATIENCE);
            };
            this.fail = (error) => {
                clearTimeout(timer);
                this.worker?.terminate();
                this.worker = this.fail = null;
                reject(error);
            };
            this.worker.onerror = (event) => this.fail(new Error(event.message));
            this.worker.onmessage = ({data}) => {
                if (data.id !== id) return;
                if ("progress" in data) return wait(), progress(data.progress);
                clearTimeout(timer);
                this.fail = null;
                if ("error" in data) reject(new Error(data.error));
                else resolve(data.value);
            };
            wait();
            this.worker.postMessage({id, call: name, args});
        });
    }
}
