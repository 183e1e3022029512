# A repository with some history, a local clone of it, and its packing.
# packages: git
export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b GIT_CONFIG_NOSYSTEM=1
export GIT_AUTHOR_DATE='2020-01-01T00:00:00Z' GIT_COMMITTER_DATE='2020-01-01T00:00:00Z' GIT_PAGER=cat
git config --global gc.auto 0; git config --global pack.threads 2; git config --global init.defaultBranch main
git config --global maintenance.auto false
git init -q origin && cd origin || exit 1
for i in $(seq 12); do seq $((i * 200)) > "file$((i % 5))"; git add -A; git commit -qm "change $i" || exit 1; done
git checkout -qb side HEAD~3; echo side > side; git add side; git commit -qm side; git checkout -q main; git merge -q --no-edit side
git tag -a -m tagged v1; git log --oneline --graph | cat; git status --short; git diff --stat HEAD~4 | cat; git blame file1 | tail -n 1
cd ..; git clone -q --local origin copy && cd copy || exit 1
git gc -q --prune=now; git fsck --full --strict 2>&1; git count-objects -v | grep -v size; git rev-parse HEAD v1; git rev-list --objects --all | wc -l
git repack -adfq --window=20; git verify-pack -v .git/objects/pack/*.idx | tail -n 1 | sed 's/.*: //'
git archive --format=tar HEAD | tar -tf -; git bundle create -q ../b HEAD main && git bundle verify -q ../b; git clone -q ../b ../third; git -C ../third rev-parse HEAD
git grep -c 99 | head -n 3; git stash -q 2>&1; echo more >> file1; git stash -q; git stash pop -q; git commit -qam more; git push -q origin HEAD:other; git fetch -q --all
git rebase -q HEAD~2 2>&1; git submodule status; git worktree add -q ../tree side2 -b side2; git -C ../tree log -1 --format=%s
git log --format=%H | md5sum; git nosuchcommand > /dev/null 2>&1; echo $?
exit 0
