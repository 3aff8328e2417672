# SPDX-License-Identifier: Apache-2.0

"""Runs inside OBS, for scripts/try-obs: records the source without and with the filter, and then adds,
changes and removes the filter while the source plays. Says on standard output what it does."""

import os
import random

import obspython as obs

SECONDS = int(os.environ["TRY_SECONDS"])
ROUNDS = int(os.environ["TRY_ROUNDS"])
FOLDER = os.environ["TRY_FOLDER"]
DIALOG_SECONDS = int(os.environ.get("TRY_DIALOG_SECONDS", "0"))
KIND = "videostabilizer_filter"
random.seed(1)


def say(text):
    print(f"try-obs: {text}", flush=True)


def source():
    return obs.obs_get_source_by_name("clip")


def add_filter(name, **values):
    parent = source()
    settings = obs.obs_data_create()
    for key, value in values.items():
        set_value = obs.obs_data_set_bool if isinstance(value, bool) else obs.obs_data_set_int
        set_value(settings, key, value)
    added = obs.obs_source_create_private(KIND, name, settings)
    obs.obs_source_filter_add(parent, added)
    obs.obs_source_release(added)
    obs.obs_data_release(settings)
    obs.obs_source_release(parent)


def with_filter(name, work):
    parent = source()
    found = obs.obs_source_get_filter_by_name(parent, name)
    if found is not None:
        work(parent, found)
        obs.obs_source_release(found)
    obs.obs_source_release(parent)
    return found is not None


def change_filter(name):
    def change(_, found):
        settings = obs.obs_data_create()
        for key, values in (("strength", range(4)), ("crop", range(60, 100)), ("look_ahead", range(31))):
            if random.random() < 0.5:
                obs.obs_data_set_int(settings, key, random.choice(values))
        for key in ("auto_crop", "halves", "rolling_shutter"):
            if random.random() < 0.3:
                obs.obs_data_set_bool(settings, key, random.random() < 0.5)
        obs.obs_source_update(found, settings)
        obs.obs_data_release(settings)

    return with_filter(name, change)


def remove_filter(name):
    return with_filter(name, obs.obs_source_filter_remove)


def disturb():
    """Something else that happens to a source."""
    parent = source()
    choice = random.randrange(5)
    if choice == 0:
        obs.obs_source_media_restart(parent)
    elif choice == 1:
        obs.obs_source_media_set_time(parent, random.randrange(8000))
    elif choice == 2:
        obs.obs_source_media_play_pause(parent, random.random() < 0.3)
    elif choice == 3:
        with_filter("f0", lambda _, f: obs.obs_source_set_enabled(f, not obs.obs_source_enabled(f)))
    obs.obs_source_release(parent)


def record(name):
    """From the same place of the clip each time, which is longer than that."""
    parent = source()
    obs.obs_source_media_restart(parent)
    obs.obs_source_release(parent)
    yield 2
    obs.obs_frontend_recording_start()
    yield SECONDS
    obs.obs_frontend_recording_stop()
    while obs.obs_frontend_recording_active():
        yield 0.2
    yield 1
    os.rename(obs.obs_frontend_get_last_recording(), f"{FOLDER}/{name}.mkv")
    say(f"recorded {name}")


def everything():
    yield 2
    yield from record("before")
    add_filter("steady")
    yield from record("after")
    change = obs.obs_data_create()
    obs.obs_data_set_bool(change, "halves", True)
    with_filter("steady", lambda _, f: obs.obs_source_update(f, change))
    obs.obs_data_release(change)
    yield from record("halves")
    if DIALOG_SECONDS:
        parent = source()
        obs.obs_frontend_open_source_filters(parent)
        obs.obs_source_release(parent)
        say("dialog")
        yield DIALOG_SECONDS
    remove_filter("steady")
    for n in range(ROUNDS):
        name = f"f{n % 2}"
        if not remove_filter(name):
            add_filter(name, strength=random.randrange(4))
        for k in range(2):
            change_filter(f"f{k}")
        disturb()
        yield random.choice((0.02, 0.1, 0.1, 0.5))
    say(f"changed {ROUNDS} times")
    parent = source()
    obs.obs_source_media_play_pause(parent, False)
    obs.obs_source_release(parent)
    for k in range(2):
        remove_filter(f"f{k}")
    add_filter("last")
    yield from record("last")
    say("finished")


STEPS = everything()


def step():
    obs.remove_current_callback()
    pause = next(STEPS, None)
    if pause is not None:
        obs.timer_add(step, int(pause * 1000))


def on_event(event):
    if event == obs.OBS_FRONTEND_EVENT_FINISHED_LOADING:
        obs.timer_add(step, 1)


def script_load(_):
    obs.obs_frontend_add_event_callback(on_event)
